#include "src/peer/group_auth.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

using bytes = std::vector<std::uint8_t>;

std::unique_ptr<group_auth> keyed(const std::string& digits, group_auth::wall_clock clock = g_get_real_time)
{
    std::string text, error;
    for (char digit : digits)
        text += std::string(64, digit) + "\n";
    return group_auth::create(group_keys::parse(text, "keys", error), std::move(clock));
}

// The receiving checks in their order; a copy of a datagram accepted lately is
// dropped apart from replays, and a variant of the same number is accepted.
TEST(group_auth, checks_length_key_mac_and_sequence_and_tells_copies_from_replays)
{
    auto sender = keyed("a"), stranger = keyed("c"), receiver = keyed("ba");
    auto make = [&](group_auth& by, node_id id, std::uint64_t sequence, std::uint8_t address) {
        auto message = peer_message::announce_new(id, 7, in_addr {address}, in6_addr {});
        return by.sign(*message, sequence), *message->encode();
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
    const char* names[] = {"no trailer", "unknown key", "bad MAC", "replayed", "duplicate"};
    auto counts = [&] { return std::vector {receiver->refused(group_auth::no_trailer), receiver->refused(group_auth::unknown_key),
                                            receiver->refused(group_auth::bad_mac), receiver->refused(group_auth::replayed), receiver->duplicates()}; };
    for (const auto& [datagram, expected] : rows) {
        auto before = counts();
        auto message = receiver->decode(datagram.data(), ssize_t(datagram.size()), sockaddr_storage {});
        std::string verdict = message ? "accepted" : "?";
        for (std::size_t r = 0; r < 5; ++r)
            verdict = counts()[r] > before[r] ? names[r] : verdict;
        EXPECT_EQ(verdict, expected);
        EXPECT_TRUE(!message || message->encode() == bytes(datagram.begin(), datagram.end() - 28));
    }
}

TEST(group_auth, sequence_numbers_follow_the_wall_clock_but_never_go_back)
{
    gint64 now = 0;
    auto auth = keyed("a", [&] { return now; });
    std::vector<std::uint64_t> given;
    for (gint64 clock : {1'000'000, 1'000'000, 5, 3'000'000, -1})
        now = clock, given.push_back(auth->next_sequence());
    EXPECT_EQ(given, (std::vector<std::uint64_t> {1'000'000, 1'000'001, 1'000'002, 3'000'000, 3'000'001}));
}

} // namespace
} // namespace kw
