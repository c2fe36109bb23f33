// SipHash with one round a word and three at the end.

#include "Runtime/ByteHash.h"

#include <bit>
#include <cstring>
#include <ctime>

#include <sys/random.h>

namespace {

struct Key {
    uint64_t first;
    uint64_t second;
};

Key _MakeKey()
{
    Key key;
    if (getrandom(&key, sizeof key, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof key)) return key;
    // Early in the system's start there may be no randomness yet; addresses and time are better than a constant.
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return {reinterpret_cast<uintptr_t>(&key) ^ static_cast<uint64_t>(now.tv_nsec),
            reinterpret_cast<uintptr_t>(&_MakeKey) + static_cast<uint64_t>(now.tv_sec)};
}

const Key &_ProcessKey()
{
    static const Key key = _MakeKey();
    return key;
}

class SipHash {
public:
    explicit SipHash(const Key &key)
        : v0_(key.first ^ 0x736f6d6570736575), v1_(key.second ^ 0x646f72616e646f6d),
          v2_(key.first ^ 0x6c7967656e657261), v3_(key.second ^ 0x7465646279746573)
    {
    }

    void Add(uint64_t word)
    {
        v3_ ^= word;
        Round();
        v0_ ^= word;
    }

    uint64_t Finish()
    {
        v2_ ^= 0xff;
        Round();
        Round();
        Round();
        return v0_ ^ v1_ ^ v2_ ^ v3_;
    }

private:
    void Round()
    {
        v0_ += v1_;
        v1_ = std::rotl(v1_, 13) ^ v0_;
        v0_ = std::rotl(v0_, 32);
        v2_ += v3_;
        v3_ = std::rotl(v3_, 16) ^ v2_;
        v0_ += v3_;
        v3_ = std::rotl(v3_, 21) ^ v0_;
        v2_ += v1_;
        v1_ = std::rotl(v1_, 17) ^ v2_;
        v2_ = std::rotl(v2_, 32);
    }

    uint64_t v0_, v1_, v2_, v3_;
};

} // namespace

uintptr_t HashBytes(const void *bytes, size_t length)
{
    SipHash hash(_ProcessKey());
    const auto *at = static_cast<const unsigned char *>(bytes);
    size_t left = length;
    uint64_t word = 0;
    for (; left >= sizeof word; left -= sizeof word, at += sizeof word) {
        std::memcpy(&word, at, sizeof word);
        hash.Add(word);
    }
    word = 0;
    if (left > 0) std::memcpy(&word, at, left);
    hash.Add(word | static_cast<uint64_t>(length) << 56);
    return static_cast<uintptr_t>(hash.Finish());
}

uintptr_t HashInteger(uint64_t value)
{
    return HashBytes(&value, sizeof value);
}
