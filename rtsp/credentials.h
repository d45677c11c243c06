// Who may watch: names and passwords from a file, and digest authentication against them.
#pragma once

#include <map>
#include <string>
#include <string_view>

class Credentials {
public:
    /// Reads lines of user:password; empty lines and those that begin with # do not count. Throws
    /// std::runtime_error with one sentence when the file can't be read, is open to others, or a line is no
    /// such.
    static Credentials fromFile(const std::string& path);

    /// Whether the Authorization header answers for a request of this method and URI, and for this nonce.
    bool allow(std::string_view authorization, const std::string& method, const std::string& uri,
               const std::string& nonce) const;
    /// The WWW-Authenticate header that asks for it.
    static std::string challenge(const std::string& nonce);
    static std::string newNonce();

private:
    std::map<std::string, std::string> m_passwords;
};
