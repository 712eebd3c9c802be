#include "src/config/group_keys.hpp"

#include "platform/unique_fd.hpp"

#include <glib.h>
#include <sodium.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace kw {

namespace {

// Locked, guarded memory from libsodium, wiped when released. Its deleter
// lives here because nothing else holds such memory.
struct sodium_release {
    void operator()(void* p) const { sodium_free(p); }
};
using secret = std::unique_ptr<char, sodium_release>;

constexpr char id_label[] = "kinwatch key identifier";

std::string_view trimmed(std::string_view line)
{
    const char* blank = " \t\r";
    std::size_t first = line.find_first_not_of(blank);
    if (first == std::string_view::npos)
        return {};
    return line.substr(first, line.find_last_not_of(blank) - first + 1);
}

std::string describe(const std::string& name, const std::string& problem)
{
    return name + ": " + problem;
}

// Safe to call again and from any thread; the service's first call is the
// key file's load at start, before anything else of the library is used.
bool library_ready(const std::string& name, std::string& error)
{
    if (sodium_init() >= 0)
        return true;
    error = describe(name, "the cryptography library cannot start");
    return false;
}

} // namespace

group_keys::~group_keys()
{
    sodium_free(m_keys);
}

std::shared_ptr<const group_keys> group_keys::parse(std::string_view text, const std::string& name,
                                                    std::string& error)
{
    if (!library_ready(name, error))
        return nullptr;
    auto* memory = static_cast<std::uint8_t*>(sodium_malloc(max_keys * key_size));
    if (!memory) {
        error = describe(name, "no locked memory for the keys");
        return nullptr;
    }
    auto keys = std::make_shared<group_keys>(private_tag {}, memory);

    int number = 0;
    while (!text.empty()) {
        std::size_t end = text.find('\n');
        std::string_view line = trimmed(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        ++number;
        if (line.empty() || line.front() == '#')
            continue;
        if (keys->m_count == max_keys) {
            error = describe(name, "more than " + std::to_string(max_keys) + " keys");
            return nullptr;
        }
        std::uint8_t* key = memory + keys->m_count * key_size;
        std::size_t length = 0;
        const char* stop = nullptr;
        if (line.size() != 2 * key_size ||
            sodium_hex2bin(key, key_size, line.data(), line.size(), nullptr, &length, &stop) != 0 ||
            length != key_size) {
            error = describe(name, "line " + std::to_string(number) + " is not a key of 64 hex digits");
            return nullptr;
        }
        unsigned char digest[crypto_auth_hmacsha256_BYTES];
        crypto_auth_hmacsha256(digest, reinterpret_cast<const unsigned char*>(id_label), sizeof id_label - 1, key);
        keys->m_ids[keys->m_count++] = std::uint32_t(digest[0]) << 24 | std::uint32_t(digest[1]) << 16 |
                                       std::uint32_t(digest[2]) << 8 | digest[3];
    }
    if (keys->m_count == 0) {
        error = describe(name, "no key");
        return nullptr;
    }
    sodium_mprotect_readonly(memory);
    return keys;
}

std::shared_ptr<const group_keys> group_keys::load(const std::string& path, std::string& error)
{
    if (!library_ready(path, error))
        return nullptr;
    unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        error = describe(path, std::string("cannot open: ") + g_strerror(errno));
        return nullptr;
    }
    if (status.st_mode & (S_IRWXG | S_IRWXO)) {
        char mode[8];
        g_snprintf(mode, sizeof mode, "%04o", unsigned(status.st_mode & 07777));
        error = describe(path, std::string("readable or writable by group or others (mode ") + mode +
                                   "); it must be 0600");
        return nullptr;
    }
    if (!S_ISREG(status.st_mode) || std::size_t(status.st_size) > max_file_size) {
        error = describe(path, "not a regular file of at most " + std::to_string(max_file_size) + " bytes");
        return nullptr;
    }
    // The hex text is key material too: it is read into locked memory only.
    std::size_t size = std::size_t(status.st_size);
    secret text(static_cast<char*>(sodium_malloc(size + 1)));
    std::size_t got = 0;
    while (text && got < size) {
        ssize_t n = ::read(file.get(), text.get() + got, size - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            errno = n == 0 ? EIO : errno; // the file shrank meanwhile
            break;
        }
        got += std::size_t(n);
    }
    if (!text || got != size) {
        error = describe(path, std::string("cannot read: ") + (text ? g_strerror(errno) : "no locked memory"));
        return nullptr;
    }
    return parse(std::string_view(text.get(), size), path, error);
}

int group_keys::find(std::uint32_t id) const
{
    for (std::size_t i = 0; i < m_count; ++i)
        if (m_ids[i] == id)
            return int(i);
    return -1;
}

} // namespace kw
