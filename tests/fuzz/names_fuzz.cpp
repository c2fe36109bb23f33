// Names, paths and URLs from anybody: nothing is read or written past their ends, an accepted name is kept under
// exactly its bytes, and a path comes back from its URL unchanged.

#include "fuzz/Fuzz.h"
#include "support/Store.h"

#include <vaultry/vaultry.h>

#include <cstring>

namespace {

void CheckName(const std::string &text)
{
    static const TestStore store(TestStore::Document::File, QuickVolume());
    const auto plain = [](const std::string &it) { return it[0] != '.' && it.find('/') == std::string::npos; };
    const auto name = String(text); // null if it is not UTF-8
    char form[255];
    const bool fits = TQStringGetGenName(name.get(), form, nullptr);
    Require(fits == (name && text.size() < sizeof form && text.find('\0') == std::string::npos), "the form of a name");
    Require(!fits || text.empty() || (form == text && validateTQName(name.get(), nullptr) == plain(text)), "a name");

    const std::string bytes = text.c_str();
    const bool good = String(bytes) && !bytes.empty() && plain(bytes) && bytes.size() < sizeof form;
    Require(store.Add(bytes) == good, "what can be added");
    Require(!good || (store.List() == std::vector{bytes} && store.Remove({bytes})), "a name that is kept");
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
    const std::string path = "/" + std::string(text.c_str());
    std::string back(path.size() + 1, '\xff'); // the sanitizer sees a byte past the capacity
    const auto url = FileURL(path);
    const auto itsText = Ref<TQString>::Adopt(TQURLCopyString(url.get()));
    for (const auto &same : {url, Ref<TQURL>::Adopt(TQURLCreateWithString(itsText.get(), nullptr))}) {
        Require(!TQURLGetAbsPath(same.get(), back.data(), path.size(), nullptr), "a path that has no room");
        Require(TQURLGetAbsPath(same.get(), back.data(), back.size(), nullptr) && back.c_str() == path,
                "a path by its URL");
    }
    const auto written = Ref<TQURL>::Adopt(TQURLCreateWithString(String(text).get(), url.get()));
    const auto address = Ref<TQString>::Adopt(TQURLCopyString(written.get()));
    Require(!address || Ref<TQURL>::Adopt(TQURLCreateWithString(address.get(), nullptr)), "a URL's own text");
    Require(!TQURLGetAbsPath(written.get(), back.data(), back.size(), nullptr) || back[0] == '/', "an absolute path");
    (void)tq_fileSystemRepresentation(written.get());
    (void)tq_stringWithFileSystemRepresentation(text.c_str());
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
