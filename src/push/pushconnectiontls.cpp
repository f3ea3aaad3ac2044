// PushConnection: credentials and TLS.

#include "pushconnection.h"
#include "pushmosquitto.h"

#include <mosquitto.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>

using namespace pushmosquitto;

namespace {

// The system's trust store where OpenSSL's defaults find it: the file and
// folder that SSL_CERT_FILE and SSL_CERT_DIR name, or else OpenSSL's own
// (a file left out when it cannot be read; libmosquitto refuses it then).
std::pair<std::string, std::string> systemTrustStore()
{
    const char *file = std::getenv(X509_get_default_cert_file_env());
    const char *dir = std::getenv(X509_get_default_cert_dir_env());
    std::pair<std::string, std::string> store{ file && *file ? file : X509_get_default_cert_file(),
        dir && *dir ? dir : X509_get_default_cert_dir() };
    if (::access(store.first.c_str(), R_OK) != 0)
        store.first.clear();
    return store;
}

} // namespace

// Credentials and TLS, once for the handle's life. A setting libmosquitto
// refuses (an unreadable CA file, a certificate without key) is kept and
// reported by the first attempt, which then does not connect.
void PushConnection::configureSecurity()
{
    const PushTlsOptions &tls = m_options.tls;
    if (!m_options.username.empty() &&
        mosquitto_username_pw_set(m_mosq, m_options.username.c_str(), orNull(m_options.password)) != MOSQ_ERR_SUCCESS)
        m_settingsError = "unusable user name (not UTF-8?)";
    if (!tls.enabled)
        return;
    // Without CA files, the system's trust store, named as files:
    // libmosquitto's own way to it (MOSQ_OPT_TLS_USE_OS_CERTS) serves only
    // the handle's first connection and refuses every reconnection.
    const bool ownCa = !tls.caFile.empty() || !tls.caPath.empty();
    const auto [caFile, caPath] = ownCa ? std::pair(tls.caFile, tls.caPath) : systemTrustStore();
    if (mosquitto_tls_set(m_mosq, orNull(caFile), orNull(caPath), orNull(tls.certFile), orNull(tls.keyFile), nullptr) !=
        MOSQ_ERR_SUCCESS)
        m_settingsError = ownCa ? "unusable TLS files (CA file or folder, certificate, key): missing, unreadable, "
                                  "or a certificate without its key"
                                : "unusable TLS files (the system's trust store, certificate, key): missing, "
                                  "unreadable, or a certificate without its key";
    // TLS 1.2 at least; verification of the chain, and of the host name
    // unless insecure.
    mosquitto_tls_opts_set(m_mosq, tls.insecure ? 0 : 1, "tlsv1.2", nullptr);
    mosquitto_tls_insecure_set(m_mosq, tls.insecure);
}
