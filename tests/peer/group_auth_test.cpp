#include "src/peer/group_auth.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

using bytes = std::vector<std::uint8_t>;
constexpr node_id own = 1, sender = 5;

// Keys made of the digits; both clocks stand still until the test moves them.
std::unique_ptr<group_auth> keyed(const std::string& digits, gint64* wall = nullptr, gint64* monotonic = nullptr)
{
    std::string text, error;
    for (char digit : digits)
        text += std::string(64, digit) + "\n";
    auto at = [](gint64* clock) { return [clock] { return clock ? *clock : gint64 {1'000'000}; }; };
    auto auth = group_auth::create(group_keys::parse(text, "keys", error), at(wall), at(monotonic));
    auth->set_own_id(own);
    return auth;
}

bytes sign(group_auth& by, std::unique_ptr<peer_message> message, std::uint64_t sequence, std::uint64_t nonce = 0)
{
    if (nonce)
        message->set_nonce(nonce);
    return by.sign(*message, sequence), *message->encode();
}

bytes announce(group_auth& by, std::uint64_t sequence, std::uint64_t nonce = 0, node_id from = sender)
{
    return sign(by, peer_message::announce_new(from, 7, in_addr {1}, in6_addr {}), sequence, nonce);
}

// What the receiver made of a datagram ("accepted", "duplicate", a refusal or "dropped"),
// then what it asks the main thread for ("+ challenge <id> <mark>", "+ answer <nonce>").
std::string judge(group_auth& receiver, const bytes& datagram, std::uint64_t* nonce = nullptr)
{
    static const char* const names[] = {"duplicate", "no trailer", "unknown key", "bad MAC", "replayed", "over limit", "unverified"};
    auto counts = [&](int r) { return r ? receiver.refused(group_auth::refusal(r - 1)) : receiver.duplicates(); };
    std::vector<std::uint64_t> before;
    for (int r = 0; r <= group_auth::refusal_count; ++r)
        before.push_back(counts(r));
    auto message = receiver.decode(datagram.data(), ssize_t(datagram.size()), sockaddr_storage {});
    std::string verdict = message ? "accepted" : "dropped";
    for (int r = 0; r <= group_auth::refusal_count; ++r)
        verdict = counts(r) > before[std::size_t(r)] ? names[r] : verdict;
    EXPECT_TRUE(!message || message->encode() == bytes(datagram.begin(), datagram.begin() + long(message->encode()->size())));
    group_auth::work work = receiver.take_work();
    for (const auto& c : work.challenges)
        verdict += " + challenge " + std::to_string(c.sender) + " " + std::to_string(c.mark), nonce && (*nonce = c.nonce);
    for (std::uint64_t n : work.answers)
        verdict += " + answer " + std::to_string(n);
    return verdict;
}

// A receiver takes a sender only from the answer carrying its challenge's nonce; copies dropped, replays
// and numbers too far ahead challenged (once a second), challenges answered above the challenger's mark.
TEST(group_auth, a_sender_is_taken_only_once_it_answered_a_challenge)
{
    gint64 wall = 0, now = 1'000'000;
    auto sending = keyed("a"), receiving = keyed("ba", &wall, &now), stranger = keyed("c");
    std::uint64_t nonce = 0;
    const bytes to_us = sign(*sending, peer_message::challenge_new(sender, own, 7, 99, 40'000'000), 3);
    const struct {
        bytes datagram;
        GTimeSpan wait;
        std::string verdict;
    } rows[] = {
        {announce(*sending, 10'000'000), 0, "unverified + challenge 5 0"},
        {announce(*sending, 11'000'000), 0, "unverified"}, // one challenge a second
        {announce(*sending, 12'000'000, 77), 0, "dropped"}, // an answer to another node: no check
        {announce(*stranger, 12'000'000), 0, "unknown key"},
        {{}, 0, "accepted"}, // the answer, made below with the nonce
        {{}, 0, "dropped"}, // its copy, an answer to nobody now
        {sign(*sending, peer_message::dispatched_new(sender, 9, 7), 13'000'000), 0, "accepted"},
        {sign(*sending, peer_message::dispatched_new(sender, 9, 7), 13'000'000), 0, "duplicate"},
        {announce(*sending, 12'500'000), 0, "duplicate + challenge 5 13000000"}, // a late copy, or numbers gone back
        {announce(*sending, 2'000'000), 0, "replayed"},
        {announce(*sending, 2'000'000), 999'999, "replayed"},
        {announce(*sending, 2'000'000), 1, "replayed + challenge 5 13000000"},
        {announce(*sending, 16'001'001), 0, "unverified"}, // further ahead than 1 s passed, plus 2 s and a thousandth
        {announce(*sending, 16'001'000), 0, "accepted"},
        {announce(*sending, 1, 0, own), 0, "accepted"}, // our own, for the tick to drop
        {to_us, 0, "dropped + answer 99"},
        {to_us, 0, "dropped + answer 99"}, // a replayed challenge too, within the limits
    };
    for (const auto& row : rows) {
        now += row.wait;
        const bytes& datagram = row.datagram.empty() ? announce(*sending, 12'000'000, nonce) : row.datagram;
        EXPECT_EQ(judge(*receiving, datagram, &nonce), row.verdict) << &row - rows;
    }
    EXPECT_EQ(receiving->next_sequence(), 40'000'001u) << "above the challenger's mark";
    EXPECT_EQ(receiving->answered(), 2u);
}

// Any byte changed: a misfit type, an unknown key, a bad MAC, or another addressee; nothing taken or
// answered. Unchanged, each kind is taken from a sender proven fresh, and a challenge answered.
TEST(group_auth, every_single_byte_change_of_a_keyed_datagram_is_refused)
{
    auto sending = keyed("a"), receiving = keyed("ba");
    std::uint64_t nonce = 0;
    judge(*receiving, announce(*sending, 1), &nonce);
    ASSERT_EQ(judge(*receiving, announce(*sending, 2, nonce)), "accepted");
    ASSERT_EQ(judge(*receiving, announce(*sending, 1), &nonce), "duplicate + challenge 5 2");
    const std::pair<bytes, std::string> kinds[] = {
        {announce(*sending, 3), "accepted"},
        {announce(*sending, 4, nonce), "accepted"},
        {sign(*sending, peer_message::dispatched_new(sender, 9, 7), 5), "accepted"},
        {sign(*sending, peer_message::leave_new(sender, 7), 6), "accepted"},
        {sign(*sending, peer_message::challenge_new(sender, own, 7, 66, 0), 7), "dropped + answer 66"},
    };
    for (const auto& [datagram, verdict] : kinds) {
        const std::size_t trailer = datagram.size() - PEER_MESSAGE_TRAILER_LENGTH;
        for (std::size_t at = 0; at < datagram.size(); ++at) {
            bytes changed = datagram;
            changed[at] ^= 0x5a;
            const bool addressee = datagram[0] == CHALLENGE ? at - 12 < 6 : datagram.size() == 68 && (at - 6 < 6 || at - 32 < 8);
            EXPECT_EQ(judge(*receiving, changed), at == 0 ? "no trailer" : at - trailer < 4 ? "unknown key" : addressee ? "dropped" : "bad MAC")
                << datagram.size() << " bytes, byte " << at;
        }
        EXPECT_EQ(judge(*receiving, datagram), verdict);
    }
}

// Forged senders cost at most the capacity in challenges a second and pending ones; so do
// answers to a flood of challenges. Everything is counted.
TEST(group_auth, a_flood_of_new_senders_and_challenges_stays_bounded_and_counted)
{
    gint64 now = 1'000'000;
    auto forger = keyed("a"), receiving = keyed("a", nullptr, &now);
    const std::size_t capacity = group_auth::challenge_capacity, flood = 4 * capacity;
    for (int second = 0; second < 3; ++second, now += group_auth::challenge_interval_us) {
        std::size_t challenged = 0, answers = 0;
        for (std::size_t i = 0, n = second * flood; i < flood; ++i, ++n) {
            for (const bytes& d : {announce(*forger, 1, 0, 0x100000 + n), sign(*forger, peer_message::challenge_new(9, own, 7, 1 + n, 0), 1)})
                EXPECT_EQ(receiving->decode(d.data(), ssize_t(d.size()), {}), nullptr);
            group_auth::work work = i % 64 && i + 1 < flood ? group_auth::work {} : receiving->take_work();
            challenged += work.challenges.size(), answers += work.answers.size();
        }
        EXPECT_EQ(std::vector({challenged, answers, receiving->pending()}), std::vector(3, capacity));
    }
    EXPECT_EQ(receiving->senders(), 0u);
    EXPECT_EQ(receiving->refused(group_auth::unverified), 3 * flood);
    EXPECT_EQ(receiving->refused(group_auth::over_limit), 3 * 2 * (flood - capacity));
    now += 9 * group_auth::challenge_interval_us;
    receiving->prune([](node_id) { return false; });
    EXPECT_EQ(receiving->pending(), 0u) << "unanswered challenges are forgotten";
}

TEST(group_auth, sequence_numbers_follow_the_wall_clock_but_never_go_back)
{
    gint64 now = 0;
    auto auth = keyed("a", &now);
    std::vector<std::uint64_t> given;
    for (gint64 clock : {1'000'000, 1'000'000, 5, 3'000'000, -1})
        now = clock, given.push_back(auth->next_sequence());
    EXPECT_EQ(given, (std::vector<std::uint64_t> {1'000'000, 1'000'001, 1'000'002, 3'000'000, 3'000'001}));
}

} // namespace
} // namespace kw
