// A store in a directory of its own, a document beside it, and the invariants of a store.

#pragma once

#include "support/Disk.h"
#include "support/Library.h"
#include "support/Reports.h"

#include <vaultry/storage.h>

#include <map>

// The contents of a document, without the copy that was to replace a hard link and may lie beside it.
Snapshot ContentsOfDocument(const std::string &path);

class TestStore {
public:
    enum class Document { Folder, File, Package };
    explicit TestStore(Document kind = Document::Folder, const std::string &volume = "");
    ~TestStore() { TQClientManagedStorageFree(handle_); }
    TestStore(const TestStore &) = delete;
    TestStore &operator=(const TestStore &) = delete;

    const TQClientManagedStorage *handle() const { return handle_; }
    const std::string &root() const { return root_; }
    const std::string &document() const { return document_; }
    const std::string &path() const { return directory_.path(); }
    std::string operator/(const std::string &name) const { return directory_ / name; }
    std::string Generation(const std::string &name) const { return root_ + "/" + name; }
    std::string Staging() const { return root_ + "/.vaultry_staging"; }

    bool Add(const std::string &name, TQError **error = nullptr, bool copy = true, uint64_t options = 0) const;
    bool CopyOut(const std::string &name, const std::string &destination, TQError **error = nullptr) const;
    bool Remove(const std::vector<std::string> &names, TQError **error = nullptr) const;
    std::vector<std::string> List() const;

    const Snapshot &contents() const { return contents_.at(""); }
    // Remembers the expected contents of generations: of all, or of the one with that name.
    void Remember(const std::string &document, const std::string &name = "");
    void RememberDocument() { Remember(document_); }

    // Checks the invariants after any operation, failed or not: every listed generation is whole and write-protected,
    // with its record of permissions; the root is protected; staging is empty; the lock is free; the next operations
    // work. After a kill staging may be filled, and the generation that was worked on, `lifted`, may be unprotected.
    // Then a repair has to mend everything except copies that clients asked for, and findings of the kind `stays`.
    void CheckInvariants(const std::string &lifted = "", bool killed = false, const std::string &stays = "");

private:
    TempDirectory directory_;
    std::string root_, document_;
    std::map<std::string, Snapshot> contents_; // by the generations' names; "" is all others
    TQClientManagedStorage *handle_ = nullptr;
};
