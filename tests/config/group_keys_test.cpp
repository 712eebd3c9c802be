#include "src/config/group_keys.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

// The number of keys and the first key's first byte, or the refusal.
std::string parsed(const std::string& text)
{
    std::string error;
    auto keys = group_keys::parse(text, "group.key", error);
    return keys ? std::to_string(keys->size()) + " keys, " + std::to_string(keys->key(0)[0]) : error;
}

TEST(group_keys, one_to_four_keys_of_64_hex_digits_per_line)
{
    const std::string a(64, 'a'), b = std::string(63, 'B') + "0";
    const std::pair<std::string, std::string> rows[] = {
        {a, "1 keys, 170"},
        {"# first signs\n\n  " + b + " \r\n\t# old\n" + a + "\n", "2 keys, 187"},
        {a + "\n" + b + "\n" + a + "\n" + b + "\n", "4 keys, 170"},
        {a + "\n" + b + "\n" + a + "\n" + b + "\n# fine\n" + a + "\n", "group.key: more than 4 keys"},
        {"\n# none\n", "group.key: no key"},
        {a + "\n" + a.substr(1) + "g\n", "group.key: line 2 is not a key of 64 hex digits"},
        {a + a, "group.key: line 1 is not a key of 64 hex digits"},
        {"#\n" + a.substr(32), "group.key: line 2 is not a key of 64 hex digits"},
        {a + " " + a, "group.key: line 1 is not a key of 64 hex digits"},
    };
    for (const auto& [text, expected] : rows)
        EXPECT_EQ(parsed(text), expected) << text;

    // Each key has its own identifier, which finds it.
    std::string error;
    auto keys = group_keys::parse(a + "\n" + b, "k", error);
    ASSERT_TRUE(keys);
    EXPECT_NE(keys->id(0), keys->id(1));
    EXPECT_EQ(keys->find(keys->id(1)), 1);
    EXPECT_EQ(keys->find(keys->id(0) ^ 1), -1);
}

} // namespace
} // namespace kw
