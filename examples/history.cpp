// A history browser: the generations of one document, or of every document that the store knows, the newest first.
//
//     c++ -std=c++17 history.cpp -o history $(pkg-config --cflags --libs vaultry)
//     history STORE [DOCUMENT]

#include <vaultry/vaultry.hpp>

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <iostream>

namespace fs = std::filesystem;

// The size of a file, or of all files in a tree.
static std::uintmax_t SizeOf(const fs::path &generation)
{
    std::uintmax_t size = 0;
    if (fs::is_regular_file(generation)) return fs::file_size(generation);
    for (const auto &entry : fs::recursive_directory_iterator(generation))
        if (entry.is_regular_file()) size += entry.file_size();
    return size;
}

static void Show(const vaultry::Record &record, bool withDocument)
{
    const std::time_t kept = std::chrono::system_clock::to_time_t(*record.time());
    std::cout << std::put_time(std::localtime(&kept), "%Y-%m-%d %H:%M:%S") << std::setw(12) << SizeOf(*record.path)
              << "  " << record.name;
    if (record.display_name) std::cout << " (" << *record.display_name << ")";
    if (withDocument) std::cout << "  " << record.document()->native();
    std::cout << '\n';
}

static void Browse(const fs::path &directory, const fs::path &document)
{
    // value() throws on failure; see sync_agent.cpp for the way without exceptions.
    const auto store = vaultry::Store::open(directory).value();
    auto history = store.query().value();

    // Generations of clients that do not note document and time are not in anybody's history.
    const auto isForeign = [&](const vaultry::Record &record) {
        return !record.time() || !record.document() || (!document.empty() && *record.document() != document);
    };
    history.erase(std::remove_if(history.begin(), history.end(), isForeign), history.end());
    std::sort(history.begin(), history.end(), [](const auto &a, const auto &b) { return *a.time() > *b.time(); });

    for (const auto &record : history) Show(record, document.empty());
    std::cout << history.size() << (history.size() == 1 ? " generation" : " generations") << '\n';
}

int main(int argc, char **argv)
{
    if (argc < 2 || argc > 3) {
        std::cerr << "usage: history STORE [DOCUMENT]\n";
        return 2;
    }
    try {
        // Not canonical(): the document may be gone, and then its history is wanted most.
        Browse(argv[1], argc == 3 ? fs::weakly_canonical(fs::absolute(argv[2])) : fs::path());
        return 0;
    } catch (const std::exception &failure) { // of the library, or of the file system
        std::cerr << "history: " << failure.what() << '\n';
        return 1;
    }
}
