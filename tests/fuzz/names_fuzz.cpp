// Names, paths and URLs from anybody: nothing is read or written past their ends, a name that is taken is kept under
// exactly its bytes, and a path comes back from its URL as it was.

#include "fuzz/Fuzz.h"
#include "support/Store.h"

#include <vaultry/vaultry.h>

#include <cstring>

namespace {

void CheckName(const std::string &text)
{
    static const TestStore store(TestStore::Document::File, QuickVolume());
    const auto name = String(text); // null for what is not UTF-8
    const auto plain = [](const std::string &it) { return it[0] != '.' && it.find('/') == std::string::npos; };
    char form[255];
    const bool fits = TQStringGetGenName(name.get(), form, nullptr);
    Require(fits == (name && text.size() < sizeof form && text.find('\0') == std::string::npos), "the form of a name");
    Require(!fits || form == text, "a name's bytes");
    Require(!fits || text.empty() || validateTQName(name.get(), nullptr) == plain(text), "what a name may be");

    const std::string bytes = text.c_str();
    Require(store.Add(bytes) == (String(bytes) && !bytes.empty() && plain(bytes) && bytes.size() < sizeof form),
            "what can be added");
    if (!disk::Exists(store.Generation(bytes)) || store.List().empty()) return;
    Require(store.List() == std::vector{bytes} && store.Remove({bytes}) && store.List().empty(), "a name that is kept");
}

void CheckPath(const std::string &path)
{
    char buffer[1024];
    if (const char *child = separate_path_parent_child(path.c_str(), buffer)) {
        const std::string parent = buffer, joined = parent.empty() ? child : parent + "/" + child;
        Require(path == joined || (parent == "/" && path == parent + child), "the parts of a path");
    }
    const char *const extension = TQGetFileNameExtensionForPath(path.c_str());
    Require(!extension || (extension > path.c_str() && *extension == '.' && !strchr(extension, '/')), "an extension");
    const char *const last = TQGetFileNameForPath(path.c_str());
    Require(!last || !strchr(last, '/'), "a last component");
    char *const parent = _CopyParentDirectoryPath(path.c_str());
    Require(!parent || path.compare(0, strlen(parent), parent) == 0, "a parent");
    free(parent);
    const TempDirectory place(QuickVolume());
    if (path.size() < 300 && path.find("..") == std::string::npos)
        Require(TQRecursiveMkdir((place / path).c_str(), 0755) != 0 || disk::Exists(place / path), "a path made");
}

void CheckURL(const std::string &text)
{
    const DeferredScope scope;
    const std::string path = text.c_str();
    std::string back(path.size() + 4096, '\0');
    const auto url = FileURL("/" + path);
    if (url && TQURLGetAbsPath(url.get(), back.data(), back.size(), nullptr))
        Require(back.c_str() == "/" + path, "a path by its URL");
    const auto written = Ref<TQURL>::Adopt(TQURLCreateWithString(String(text).get(), url.get()));
    if (!written) return;
    const auto address = Ref<TQString>::Adopt(TQURLCopyString(written.get()));
    const auto again = Ref<TQURL>::Adopt(TQURLCreateWithString(address.get(), nullptr));
    Require(!address || again, "a URL's own text");
    for (const size_t room : {size_t{1}, text.size() + 1, size_t{1024}}) {
        std::string exact(room, '\xff'); // the sanitizer sees one byte more
        exact.shrink_to_fit();
        if (TQURLGetAbsPath(written.get(), exact.data(), room, nullptr))
            Require(exact[0] == '/' && strlen(exact.c_str()) < room, "an absolute path");
    }
    (void)tq_fileSystemRepresentation(written.get());
    (void)tq_stringWithFileSystemRepresentation(path.c_str());
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(bytes), size);
    CheckName(text);
    CheckPath(text.c_str());
    CheckURL(text);
    return 0;
}
