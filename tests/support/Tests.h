// Included by nearly every test of the upper floors: fixtures, and shorthand for tables.

#pragma once

#include "support/Child.h"
#include "support/Disk.h"
#include "support/Identity.h"
#include "support/Library.h"
#include "support/Reports.h"
#include "support/Store.h"

#include <vaultry/vaultry.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

// An operation whose result says whether it succeeded, and whose error goes to `why`. A value that it returns is left
// to the child that runs it.
#define CALL(expression) [&](TQError **why) -> bool { return static_cast<bool>(expression); }

// A test in a directory of its own, as each user.
class InDirectory : public AsEach {
protected:
    std::string At(const std::string &name) const { return directory / name; }
    std::string File(const std::string &name, std::string_view bytes = "", mode_t mode = 0644) const
    {
        return disk::Write(At(name), bytes, mode);
    }
    std::string Link(const std::string &name, const std::string &target) const
    {
        EXPECT_EQ(symlink(target.c_str(), At(name).c_str()), 0);
        return At(name);
    }

    TempDirectory directory;
    const bool isRoot = GetParam() == As::Root;
};

// A test on a store.
class InStore : public AsEach {
protected:
    void Expect(const std::vector<Row> &rows) const { ExpectRows(rows, store.path()); }

    TestStore store;
    const TQClientManagedStorage *const handle = store.handle();
};
