#include "rtsp/credentials.h"

#include <fstream>
#include <gst/rtsp/gstrtspmessage.h>
#include <stdexcept>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "rtsp/glib_object.h"

namespace {

constexpr char kRealm[] = "tavirn";

/// Takes as long for every text of the same length.
bool isEqual(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    int different = 0;
    for (size_t n = 0; n < a.size(); ++n) different |= a[n] ^ b[n];
    return different == 0;
}

/// The parameters of a Digest header.
std::map<std::string, std::string> digestParameters(std::string_view authorization) {
    std::map<std::string, std::string> parameters;
    GstRTSPMessage message{};
    gst_rtsp_message_init_request(&message, GST_RTSP_OPTIONS, "*");
    gst_rtsp_message_add_header(&message, GST_RTSP_HDR_AUTHORIZATION, std::string(authorization).c_str());
    GstRTSPAuthCredential** all =
        gst_rtsp_message_parse_auth_credentials(&message, GST_RTSP_HDR_AUTHORIZATION);
    if (all && all[0] && all[0]->scheme == GST_RTSP_AUTH_DIGEST && all[0]->params)
        for (GstRTSPAuthParam** each = all[0]->params; *each; ++each)
            if ((*each)->name && (*each)->value) parameters[(*each)->name] = (*each)->value;
    if (all) gst_rtsp_auth_credentials_free(all);
    gst_rtsp_message_unset(&message);
    return parameters;
}

} // namespace

Credentials Credentials::fromFile(const std::string& path) {
    struct stat state {};
    if (stat(path.c_str(), &state) == 0) {
        if ((state.st_mode & (S_IRWXG | S_IRWXO)) != 0)
            throw std::runtime_error("the credentials in " + path + " are open to others: chmod 600 " + path);
        if (state.st_uid != geteuid() && state.st_uid != 0)
            throw std::runtime_error("the credentials in " + path + " belong to somebody else");
    }
    std::ifstream file(path);
    if (!file) throw std::runtime_error("cannot read the credentials in " + path);
    Credentials credentials;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line.starts_with('#')) continue;
        const size_t colon = line.find(':');
        if (colon == std::string::npos || colon == 0)
            throw std::runtime_error("the credentials in " + path + " are to be lines of user:password");
        credentials.m_passwords[line.substr(0, colon)] = line.substr(colon + 1);
    }
    if (credentials.m_passwords.empty()) throw std::runtime_error("there are no credentials in " + path);
    return credentials;
}

bool Credentials::allow(std::string_view authorization, const std::string& method, const std::string& uri,
                        const std::string& nonce) const {
    auto given = digestParameters(authorization);
    const auto known = m_passwords.find(given["username"]);
    if (nonce.empty() || given["nonce"] != nonce || given["realm"] != kRealm || given["uri"] != uri)
        return false;
    // An unknown user takes as long as a wrong password.
    const std::string password = known == m_passwords.end() ? nonce : known->second;
    const std::string expected = taken(
        gst_rtsp_generate_digest_auth_response(nullptr, method.c_str(), kRealm, given["username"].c_str(),
                                               password.c_str(), uri.c_str(), nonce.c_str()));
    return known != m_passwords.end() && !expected.empty() && isEqual(expected, given["response"]);
}

std::string Credentials::challenge(const std::string& nonce) {
    return std::string("Digest realm=\"") + kRealm + "\", nonce=\"" + nonce + "\"";
}

std::string Credentials::newNonce() {
    unsigned char bytes[16];
    if (getrandom(bytes, sizeof bytes, 0) != sizeof bytes) throw std::runtime_error("no random numbers");
    std::string text;
    for (const unsigned char byte : bytes) {
        constexpr char kDigits[] = "0123456789abcdef";
        text += {kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return text;
}
