#include "src/peer/group_auth.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

using bytes = std::vector<std::uint8_t>;

std::shared_ptr<const group_keys> keys(const std::string& digits)
{
    std::string text, error;
    for (char digit : digits)
        text += std::string(64, digit) + "\n";
    return group_keys::parse(text, "keys", error);
}

// The receiving checks in their order; copies of an accepted datagram are
// dropped apart from replays, and a variant of the same number is accepted.
TEST(group_auth, checks_length_key_mac_and_sequence_and_tells_copies_from_replays)
{
    auto sender = group_auth::create(keys("a")), stranger = group_auth::create(keys("c"));
    auto receiver = group_auth::create(keys("ba"));
    auto make = [&](group_auth& by, node_id id, std::uint64_t sequence, std::uint8_t address) {
        auto message = peer_message::announce_new(id, 7, in_addr {address}, in6_addr {});
        by.sign(*message, sequence);
        return *message->encode();
    };
    const bytes first = make(*sender, 5, 10, 1), variant = make(*sender, 5, 10, 2), newer = make(*sender, 5, 11, 1);
    bytes tampered = newer, cut = first;
    tampered[12] ^= 1, cut.pop_back();
    const std::pair<bytes, std::string> rows[] = {
        {first, "accepted"},    {first, "duplicate"}, {variant, "accepted"},   {make(*sender, 5, 9, 1), "replayed"},
        {tampered, "bad MAC"},  {newer, "accepted"},  {variant, "duplicate"},  {make(*sender, 5, 10, 3), "replayed"},
        {make(*sender, 6, 1, 1), "accepted"},         {make(*stranger, 5, 12, 1), "unknown key"},
        {bytes(first.begin(), first.begin() + 32), "no trailer"},          {cut, "no trailer"},
    };
    const char* names[] = {"no trailer", "unknown key", "bad MAC", "replayed"};
    for (const auto& [datagram, expected] : rows) {
        std::uint32_t before[] = {receiver->refused(group_auth::no_trailer), receiver->refused(group_auth::unknown_key),
                                  receiver->refused(group_auth::bad_mac), receiver->refused(group_auth::replayed)};
        std::uint32_t duplicates = receiver->duplicates();
        auto message = receiver->decode(datagram.data(), ssize_t(datagram.size()), sockaddr_storage {});
        std::string verdict = message ? "accepted" : receiver->duplicates() > duplicates ? "duplicate" : "?";
        for (int r = 0; r < group_auth::refusal_count; ++r)
            verdict = receiver->refused(group_auth::refusal(r)) > before[r] ? names[r] : verdict;
        EXPECT_EQ(verdict, expected) << expected;
        EXPECT_TRUE(!message || message->encode() == bytes(datagram.begin(), datagram.end() - 28));
    }
    // The first key signs; a key no longer in the file is unknown.
    receiver->set_keys(keys("b"));
    bytes later = make(*sender, 5, 20, 1);
    EXPECT_FALSE(receiver->decode(later.data(), ssize_t(later.size()), sockaddr_storage {}));
    EXPECT_EQ(receiver->refused(group_auth::unknown_key), 2u);
}

TEST(group_auth, sequence_numbers_follow_the_wall_clock_but_never_go_back)
{
    gint64 now = 1'000'000;
    auto auth = group_auth::create(keys("a"), [&] { return now; });
    std::vector<std::uint64_t> given;
    for (gint64 clock : {1'000'000, 1'000'000, 5, 3'000'000, -1})
        now = clock, given.push_back(auth->next_sequence());
    EXPECT_EQ(given, (std::vector<std::uint64_t> {1'000'000, 1'000'001, 1'000'002, 3'000'000, 3'000'001}));
}

} // namespace
} // namespace kw
