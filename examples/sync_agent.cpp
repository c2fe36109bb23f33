// A sync agent: copies newer files from one folder to another, and keeps every document that it overwrites.
//
//     c++ -std=c++17 sync_agent.cpp -o sync_agent $(pkg-config --cflags --libs vaultry)
//     sync_agent STORE FROM TO

#include <vaultry/vaultry.hpp>

#include <iostream>

namespace fs = std::filesystem;
using std::chrono::system_clock;

static bool Complain(const fs::path &path, const std::string &why)
{
    std::cerr << "sync_agent: " << path.native() << ": " << why << '\n';
    return false;
}

// Keeps the document, and notes whose generation that is. If anything fails, the caller leaves the document alone.
static vaultry::Result<void> Keep(const vaultry::Store &store, const fs::path &document)
{
    const auto now = system_clock::now();
    // Unique, and with the extension that a restored document should have.
    const std::string name = "sync " + std::to_string(now.time_since_epoch().count()) + document.extension().native();

    std::int64_t bytes = 0;
    vaultry::Progress progress; // of large documents; draw a bar here, or call cancel() from another thread
    progress.observe([&](std::int64_t done, std::int64_t) { bytes = done; });
    const auto scope = progress.make_current();

    if (auto kept = store.add(name, document); !kept) return kept;
    std::cout << "kept " << document.native() << ", " << bytes << " bytes\n";
    if (auto set = store.set_info(name, vaultry::document_key, vaultry::Data(document.native())); !set) return set;
    return store.set_info(name, vaultry::time_key, now);
}

static bool Update(const vaultry::Store &store, const fs::path &source, const fs::path &document)
{
    std::error_code failed;
    if (fs::exists(document)) {
        if (fs::last_write_time(source) <= fs::last_write_time(document)) return true;
        if (auto kept = Keep(store, fs::canonical(document)); !kept)
            return Complain(document, "not updated, since it can't be kept: " + kept.error().description());
    }
    fs::create_directories(document.parent_path(), failed);
    if (!failed) fs::copy_file(source, document, fs::copy_options::overwrite_existing, failed);
    if (failed) return Complain(document, "can't be updated: " + failed.message());
    std::cout << "updated " << document.native() << '\n';
    return true;
}

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::cerr << "usage: sync_agent STORE FROM TO\n";
        return 2;
    }
    const auto store = vaultry::Store::open(argv[1]);
    if (!store) return Complain(argv[1], store.error().description()), 1;
    try {
        bool all = true;
        for (const auto &entry : fs::recursive_directory_iterator(argv[2]))
            if (entry.is_regular_file() && !entry.is_symlink())
                all = Update(*store, entry.path(), argv[3] / fs::relative(entry.path(), argv[2])) && all;
        return all ? 0 : 1;
    } catch (const fs::filesystem_error &failure) {
        std::cerr << "sync_agent: " << failure.what() << '\n';
        return 1;
    }
}
