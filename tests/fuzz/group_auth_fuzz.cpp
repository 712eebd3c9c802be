// The keyed decoder: a receiver that knows nobody takes only its own datagrams and asks at most one
// challenge or answer. Signed by a sender that answered, an input passes as itself, then as a copy, and
// fails with any byte changed; a challenge of its bytes naming the receiver is answered with its nonce.
#include "src/peer/group_auth.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static std::string error;
    static auto signer = kw::group_auth::create(kw::group_keys::parse(std::string(64, '5') + "\n" + std::string(64, '6'), "", error));
    const std::vector<std::uint8_t> input(data, data + size);
    auto decode = [](const std::vector<std::uint8_t>& d, kw::group_auth& by) { return by.decode(d.data(), ssize_t(d.size()), {}); };
    auto sign = [](std::unique_ptr<kw::peer_message> m, std::uint64_t sequence) { return signer->sign(*m, sequence), *m->encode(); };
    auto receiver = kw::group_auth::create(signer->keys());
    receiver->set_own_id(1);
    auto taken = decode(input, *receiver);
    kw::group_auth::work work = receiver->take_work();
    if ((taken && taken->get_node_id() != 1) || work.challenges.size() + work.answers.size() > 1)
        std::abort();
    std::uint64_t nonce = 0;
    std::memcpy(&nonce, data, std::min(size, sizeof nonce));
    decode(sign(kw::peer_message::challenge_new(2, 1, 7, nonce, 0), 1), *receiver);
    if (receiver->take_work().answers != std::vector<std::uint64_t>(nonce != 0, nonce))
        std::abort();

    auto plain = kw::peer_message::decode(data, ssize_t(size));
    if (!plain)
        return 0;
    receiver = kw::group_auth::create(signer->keys());
    receiver->set_own_id(plain->get_node_id() ^ 1);
    auto answer = kw::peer_message::announce_new(plain->get_node_id(), plain->get_group(), {}, {});
    if (decode(sign(plain->copy(), 1000), *receiver) || (work = receiver->take_work()).challenges.size() != 1)
        std::abort();
    answer->set_nonce(work.challenges[0].nonce);
    std::vector<std::uint8_t> wire = sign(std::move(plain), 3000), changed = wire;
    changed[(size * 7) % wire.size()] ^= 0x20;
    if (!decode(sign(std::move(answer), 2000), *receiver) || decode(changed, *receiver))
        std::abort();
    auto back = decode(wire, *receiver);
    if (!back || back->encode() != input || decode(wire, *receiver))
        std::abort();
    return 0;
}
