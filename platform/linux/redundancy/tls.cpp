// The module that tls_load loads: everything that OpenSSL is used for.
#include "tls.h"

#include <cerrno>
#include <cstring>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace platform_linux
{
namespace
{

std::string tls_error()
{
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    const char *reason = ERR_reason_error_string(code);
    return code == 0 ? strerror(errno) : reason != nullptr ? reason : "error " + std::to_string(code);
}

class OpenSslSession : public TlsSession
{
  public:
    explicit OpenSslSession(SSL *ssl) : ssl_(ssl) {}
    ~OpenSslSession() override { SSL_free(ssl_); }

    TlsResult shake_hands() override
    {
        errno = 0;
        return result(SSL_do_handshake(ssl_));
    }

    TlsResult read(std::span<uint8_t> room, size_t &count) override
    {
        errno = 0;
        return result(SSL_read_ex(ssl_, room.data(), room.size(), &count));
    }

    TlsResult write(std::span<const uint8_t> bytes, size_t &count) override
    {
        errno = 0;
        return result(SSL_write_ex(ssl_, bytes.data(), bytes.size(), &count));
    }

    std::string trouble() const override { return trouble_; }

  private:
    TlsResult result(int returned)
    {
        if (returned == 1)
            return TlsResult::done;
        switch (SSL_get_error(ssl_, returned)) {
        case SSL_ERROR_WANT_READ:
            return TlsResult::wantsRead;
        case SSL_ERROR_WANT_WRITE:
            return TlsResult::wantsWrite;
        case SSL_ERROR_ZERO_RETURN:
            return TlsResult::closed;
        default:
            break;
        }
        const long verified = SSL_get_verify_result(ssl_);
        trouble_ = verified != X509_V_OK
                       ? std::string("its certificate: ") + X509_verify_cert_error_string(verified)
                       : tls_error();
        ERR_clear_error();
        return TlsResult::failed;
    }

    SSL *ssl_;
    std::string trouble_;
};

class OpenSsl : public Tls
{
  public:
    explicit OpenSsl(std::string peerName) : peerName_(std::move(peerName)) {}
    ~OpenSsl() override { SSL_CTX_free(context_); }

    bool open(const PeerConf &conf, std::string &error)
    {
        const auto wrong = [&error](const std::string &what) {
            error = what + ": " + tls_error();
            return false;
        };
        context_ = SSL_CTX_new(TLS_method());
        if (context_ == nullptr || SSL_CTX_set_min_proto_version(context_, TLS1_3_VERSION) != 1)
            return wrong("TLS 1.3 cannot be had");
        if (SSL_CTX_use_certificate_chain_file(context_, conf.certificate.c_str()) != 1)
            return wrong(conf.certificate);
        if (SSL_CTX_use_PrivateKey_file(context_, conf.key.c_str(), SSL_FILETYPE_PEM) != 1 ||
            SSL_CTX_check_private_key(context_) != 1)
            return wrong(conf.key);
        if (SSL_CTX_load_verify_locations(context_, conf.authority.c_str(), nullptr) != 1)
            return wrong(conf.authority);
        SSL_CTX_set_verify(context_, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        SSL_CTX_set_session_cache_mode(context_, SSL_SESS_CACHE_OFF);
        SSL_CTX_set_num_tickets(context_, 0);
        SSL_CTX_set_mode(context_, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
        return true;
    }

    std::unique_ptr<TlsSession> session(int fd, bool accepting) override
    {
        SSL *ssl = SSL_new(context_);
        if (ssl == nullptr || SSL_set_fd(ssl, fd) != 1 || SSL_set1_host(ssl, peerName_.c_str()) != 1) {
            SSL_free(ssl);
            return nullptr;
        }
        SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_WILDCARDS);
        if (accepting)
            SSL_set_accept_state(ssl);
        else
            SSL_set_connect_state(ssl);
        return std::make_unique<OpenSslSession>(ssl);
    }

  private:
    SSL_CTX *context_ = nullptr;
    std::string peerName_;
};

} // namespace

extern "C" __attribute__((visibility("default"))) Tls *dhcpsnoop_tls_open(const PeerConf &conf,
                                                                          std::string &error)
{
    auto tls = std::make_unique<OpenSsl>(conf.name);
    return tls->open(conf, error) ? tls.release() : nullptr;
}

} // namespace platform_linux
