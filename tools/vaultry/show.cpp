// vaultry show: everything that is known about one generation.

#include "commands.h"
#include "description.h"
#include "failure.h"
#include "generation.h"
#include "json.h"
#include "show_item.h"
#include "text.h"
#include "times.h"

#include <vaultry/library.h>
#include <vaultry/number.h>

#include <cerrno>
#include <sys/stat.h>

static Json _FlagsToJson(uint32_t flags)
{
    Json names = Json::array();
    if (flags & kTQFlagNoDump) names.push_back("nodump");
    if (flags & kTQFlagImmutable) names.push_back("immutable");
    if (flags & kTQFlagAppend) names.push_back("append-only");
    if (flags & kTQFlagCompressed) names.push_back("compressed");
    return names;
}

static std::string _Octal(uint32_t mode)
{
    char text[16];
    snprintf(text, sizeof text, "%04o", mode & 07777);
    return text;
}

// Permissions are those that the document had, not those that protect it in the store.
void DescribeStored(const std::string &path, Json &object, Problems &problems)
{
    struct stat item {};
    if (!IsThere(path, &item)) throw CommandFailure::Errno("can't look at " + Quoted(path), ENOENT).At(path);
    object["kind"] = S_ISDIR(item.st_mode) ? "directory" : S_ISREG(item.st_mode) ? "file" : "other";
    problems.Note([&] { object["size"] = SizeOfTree(path); });
    TQFileStatus status;
    const int reason = TQLibraryInternalStatGeneration(path.c_str(), &status) == 0 ? 0 : errno;
    if (reason == 0) object["mode"] = _Octal(status.mode);
    object["owner"] = item.st_uid;
    object["group"] = item.st_gid;
    if (reason == 0) object["flags"] = _FlagsToJson(status.flags);
    object["modified"] = IsoTime(ToSeconds(item.st_mtim));
    if (reason != 0)
        throw CommandFailure::Errno("can't read the record of the document's permissions on " + Quoted(path), reason)
            .At(path);
}

// Shows what can be read; the rest is left out, and noted.
static Json _Describe(const Store &store, const std::string &name, Problems &problems)
{
    Json object;
    PutBytes(object, "name", name);
    Owned<TQDictionary> dictionary;
    problems.Note([&] { dictionary = store.InfoDictionaryOf(name); });
    const GenerationInfo info = ToGenerationInfo(dictionary.get());
    if (info.document) PutBytes(object, "document", *info.document);
    if (info.time) object["kept"] = IsoTime(*info.time);
    if (info.isPinned) object["pinned"] = true;
    if (info.backupOf) PutBytes(object, "backup_of", *info.backupOf);
    problems.Note([&] { DescribeStored(store.PathOf(name), object, problems); });
    problems.Note([&] {
        if (const std::string shown = store.DisplayNameOf(name); !shown.empty())
            PutBytes(object, "display_name", shown);
    });
    object["options"] = TQClientManagedStorageGetGenerationOptions(store.handle(), name.c_str(), nullptr);
    PutBytes(object, "path", store.PathOf(name));
    if (dictionary) object["info"] = ToJson(dictionary.get());
    if (!problems.none()) object["problems"] = problems.texts();
    return object;
}

int RunShow(const Arguments &arguments)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    const GenerationItem item = ChosenItem(store, arguments);
    if (item.inner) return ShowItem(store, item, arguments.json);
    const std::string &name = item.name;
    Problems problems;
    const Json object = _Describe(store, name, problems);
    if (!problems.none() && store.Lacks(name)) throw problems.first();
    if (arguments.json)
        PrintLine(object);
    else
        PrintDescription(object);
    problems.SayAll();
    return problems.exitCode();
}
