// An accepted key file holds one to four keys, which written out again give the same identifiers.
#include "src/config/group_keys.hpp"

#include <sodium.h>

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string error;
    auto keys = kw::group_keys::parse(std::string_view(reinterpret_cast<const char*>(data), size), "fuzz", error);
    if (!keys)
        return error.rfind("fuzz: ", 0) == 0 ? 0 : (std::abort(), 0);
    if (keys->size() < 1 || keys->size() > kw::group_keys::max_keys)
        std::abort();
    std::string text;
    char hex[2 * kw::group_keys::key_size + 1];
    for (std::size_t i = 0; i < keys->size(); ++i)
        text += sodium_bin2hex(hex, sizeof hex, keys->key(i), kw::group_keys::key_size) + std::string("\n");
    auto again = kw::group_keys::parse(text, "again", error);
    for (std::size_t i = 0; again && i < keys->size(); ++i)
        if (again->id(i) != keys->id(i) || keys->find(keys->id(i)) > int(i))
            std::abort();
    if (!again || again->size() != keys->size())
        std::abort();
    return 0;
}
