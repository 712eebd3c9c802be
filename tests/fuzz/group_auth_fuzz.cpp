// The keyed decoder. A datagram it accepts is its message signed again with
// the same number, and a second look at it finds a copy. Each input is also
// taken as a plain datagram: signed, it passes and gives the same message
// back, and with any byte changed it fails.
#include "src/peer/group_auth.hpp"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static std::string error;
    static auto signer = kw::group_auth::create(kw::group_keys::parse(std::string(64, '5') + "\n" + std::string(64, '6'), "", error));
    const std::vector<std::uint8_t> input(data, data + size);
    const sockaddr_storage from {};
    auto decode = [&](const std::vector<std::uint8_t>& d, kw::group_auth& by) { return by.decode(d.data(), ssize_t(d.size()), from); };
    auto receiver = kw::group_auth::create(signer->keys());
    if (auto message = decode(input, *receiver)) {
        std::uint64_t sequence = 0;
        for (std::size_t i = size - 24; i < size - 16; ++i)
            sequence = sequence << 8 | data[i];
        signer->sign(*message, sequence);
        if (message->encode() != input || decode(input, *receiver))
            std::abort();
    }
    auto plain = kw::peer_message::decode(data, ssize_t(size));
    if (!plain)
        return 0;
    signer->sign(*plain, size ? data[size - 1] : 0);
    std::vector<std::uint8_t> wire = *plain->encode();
    auto back = decode(wire, *kw::group_auth::create(signer->keys()));
    wire[(size * 7) % wire.size()] ^= 0x20;
    if (!back || back->encode() != input || decode(wire, *kw::group_auth::create(signer->keys())))
        std::abort();
    return 0;
}
