// Who a test is: root, an ordinary user, or a user who may set immutable flags.
//
// A root process can be any of the three in turn, so one run as root covers them all. A user's process can only lose
// rights. A test for a user that this process can't be is skipped by name.

#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <sys/types.h>

enum class As { Root, User, Capable };

constexpr uid_t kTestUser = 12345; // root becomes this user, an id that owns nothing else

bool CanBe(As who);
As WhoIAm();
std::string NameOf(As who);

// Sets the effective and real user for the span of a scope, also for a child forked in it.
class Impersonate {
public:
    explicit Impersonate(As who);
    ~Impersonate();
    Impersonate(const Impersonate &) = delete;
    Impersonate &operator=(const Impersonate &) = delete;

private:
    bool wasRoot_;
};

// A fixture of tests that run once as each. Members of a derived fixture are made, and cleaned up, by that user.
class AsEach : public testing::TestWithParam<As> {
protected:
    AsEach()
    {
        if (CanBe(GetParam())) identity_.emplace(GetParam());
    }
    void SetUp() override
    {
        if (!identity_) GTEST_SKIP() << "this process can't be " << NameOf(GetParam());
    }

private:
    std::optional<Impersonate> identity_;
};

#define INSTANTIATE_AS(suite, ...)                                                                                     \
    INSTANTIATE_TEST_SUITE_P(As, suite, testing::Values(__VA_ARGS__),                                                  \
                             [](const auto &each) { return NameOf(each.param); })
#define INSTANTIATE_AS_EACH(suite) INSTANTIATE_AS(suite, As::Root, As::User, As::Capable)
