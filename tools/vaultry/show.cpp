// vaultry show: everything that is known of one generation.

#include "commands.h"
#include "failure.h"
#include "generation.h"
#include "json.h"
#include "text.h"

#include <vaultry/archive.h>
#include <vaultry/library.h>
#include <vaultry/number.h>

#include <cerrno>
#include <sys/stat.h>

static double _Seconds(const struct timespec &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

static const char *_Kind(const TQFileStatus &status)
{
    return S_ISDIR(status.mode) ? "directory" : S_ISREG(status.mode) ? "file" : "other";
}

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

static Owned<TQDictionary> _InfoOf(const Store &store, const std::string &name)
{
    Owned<TQError> error;
    Owned<TQDictionary> info(
        TQClientManagedStorageCopyGenerationInfoDictionary(store.handle(), name.c_str(), error.out()));
    if (!info) throw CommandFailure::Library("can't read what is known of the generation " + Quoted(name), error.get());
    return info;
}

// With permissions as the document had them, not as the store protects them.
static Json _Describe(const Store &store, const std::string &name)
{
    const std::string path = store.PathOf(name);
    TQFileStatus status;
    if (TQLibraryInternalStatGeneration(path.c_str(), &status) != 0)
        throw CommandFailure::Errno("can't look at the generation " + Quoted(name), errno);
    const GenerationInfo info = store.InfoOf(name);
    const Owned<TQString> displayName(
        TQClientManagedStorageCopyGenerationOriginalDisplayName(store.handle(), name.c_str(), nullptr));

    Json object;
    PutBytes(object, "name", name);
    if (info.document) PutBytes(object, "document", *info.document);
    if (info.time) object["kept"] = IsoTime(*info.time);
    object["kind"] = _Kind(status);
    object["size"] = TQComputeTreeSize(path.c_str(), nullptr);
    object["mode"] = _Octal(status.mode);
    object["owner"] = status.owner;
    object["group"] = status.group;
    object["flags"] = _FlagsToJson(status.flags);
    object["modified"] = IsoTime(_Seconds(status.modificationTime));
    if (displayName) PutBytes(object, "display_name", ToText(displayName.get()));
    object["options"] = TQClientManagedStorageGetGenerationOptions(store.handle(), name.c_str(), nullptr);
    PutBytes(object, "path", path);
    object["info"] = ToJson(_InfoOf(store, name).get());
    return object;
}

// A line for each entry; those of the info dictionary as JSON below it.
static void _PrintForPeople(const Json &object)
{
    for (const auto &[key, value] : object.items()) {
        std::string text = value.is_string() ? Printable(value.get<std::string>())
                           : key == "size"   ? HumanSize(value.get<uint64_t>())
                                             : Printable(value.dump(-1, ' ', false, Json::error_handler_t::replace));
        if (key == "kept" || key == "modified") text = HumanTime(ParseTime(value, Moment::First).value_or(0));
        if (key != "info") printf("%-13s %s\n", (key + ":").c_str(), text.c_str());
    }
    for (const auto &[key, value] : object["info"].items())
        printf("  %s = %s\n", Printable(key).c_str(),
               Printable(value.dump(-1, ' ', false, Json::error_handler_t::replace)).c_str());
}

int RunShow(const Arguments &arguments)
{
    const Store store = Store::Require(LocateStore(arguments.store));
    const Json object = _Describe(store, ResolveGeneration(store, arguments.name));
    if (arguments.json)
        PrintLine(object);
    else
        _PrintForPeople(object);
    return kExitSuccess;
}
