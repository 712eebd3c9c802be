// The keyed decoder. A datagram it accepts is its message's plain datagram
// followed by the trailer that signing the message again with the same
// number gives, and a second look at it finds a copy, never a new message.
// Each input is also taken as a plain datagram: signed, it must pass, give
// back the same message, and fail once any byte of it is changed.
#include "src/peer/group_auth.hpp"

#include <cstdlib>

namespace {

using bytes = std::vector<std::uint8_t>;

kw::group_auth& signer()
{
    static auto auth = [] {
        std::string error;
        return kw::group_auth::create(kw::group_keys::parse(std::string(64, '5') + "\n" + std::string(64, '6'), "fuzz", error));
    }();
    return *auth;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const bytes input(data, data + size);
    const sockaddr_storage from {};
    auto receiver = kw::group_auth::create(signer().keys());
    if (auto message = receiver->decode(data, static_cast<ssize_t>(size), from)) {
        std::uint64_t sequence = 0;
        for (std::size_t i = size - 24; i < size - 16; ++i)
            sequence = sequence << 8 | data[i];
        signer().sign(*message, sequence);
        if (message->encode() != input || receiver->decode(data, static_cast<ssize_t>(size), from))
            std::abort();
    }

    auto plain = kw::peer_message::decode(data, static_cast<ssize_t>(size));
    if (!plain)
        return 0;
    signer().sign(*plain, size ? data[size - 1] : 0);
    bytes wire = *plain->encode();
    auto fresh = kw::group_auth::create(signer().keys());
    auto back = fresh->decode(wire.data(), static_cast<ssize_t>(wire.size()), from);
    if (!back || back->encode() != input)
        std::abort();
    wire[(size * 7) % wire.size()] ^= 0x20;
    if (kw::group_auth::create(signer().keys())->decode(wire.data(), static_cast<ssize_t>(wire.size()), from))
        std::abort();
    return 0;
}
