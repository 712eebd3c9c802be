#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace kw {

// The keys of an authenticated group, as read from a key file: one key per
// line as 64 hex digits, blank lines and lines starting with '#' ignored,
// one to four keys. The first key signs, every key is accepted. Immutable
// once made, so receiving threads may share it; the key material lives in
// locked memory that is wiped when the object goes.
class group_keys {
public:
    static constexpr std::size_t key_size = 32;
    static constexpr std::size_t max_keys = 4;
    // A larger file is refused before it is read.
    static constexpr std::size_t max_file_size = 65536;

    // Refuses, with a text naming the file and what is wrong, a file that is
    // missing, unreadable, readable or writable by group or others, or whose
    // content parse() refuses.
    static std::shared_ptr<const group_keys> load(const std::string& path, std::string& error);
    // The content of a key file; name is what the error texts call it.
    static std::shared_ptr<const group_keys> parse(std::string_view text, const std::string& name, std::string& error);

    group_keys(const group_keys&) = delete;
    group_keys& operator=(const group_keys&) = delete;
    ~group_keys();

    std::size_t size() const { return m_count; }
    const std::uint8_t* key(std::size_t index) const { return m_keys + index * key_size; }
    // A 32-bit name for each key, derived from the key itself, so that a
    // receiver checks one key and never learns anything from a wrong one.
    std::uint32_t id(std::size_t index) const { return m_ids[index]; }
    // The index of the key with that identifier, or -1.
    int find(std::uint32_t id) const;

    struct private_tag {
        explicit private_tag() = default;
    };
    group_keys(private_tag, std::uint8_t* keys) : m_keys(keys) {}

private:
    std::uint8_t* m_keys; // sodium_malloc'd, max_keys * key_size bytes
    std::uint32_t m_ids[max_keys] {};
    std::size_t m_count = 0;
};

} // namespace kw
