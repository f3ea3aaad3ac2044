// PushConnection: credentials and TLS.

#include "pushconnection.h"
#include "pushmosquitto.h"

#include <mosquitto.h>

using namespace pushmosquitto;

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
    // Without CA files the system's trust store is used; that alone turns
    // TLS on (libmosquitto takes CA files only together with a client
    // certificate, so a certificate needs them).
    const bool ownCa = !tls.caFile.empty() || !tls.caPath.empty();
    if (!ownCa)
        mosquitto_int_option(m_mosq, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
    if ((ownCa || !tls.certFile.empty() || !tls.keyFile.empty()) &&
        mosquitto_tls_set(m_mosq, orNull(tls.caFile), orNull(tls.caPath), orNull(tls.certFile), orNull(tls.keyFile),
            nullptr) != MOSQ_ERR_SUCCESS)
        m_settingsError = ownCa ? "unusable TLS files (CA file or folder, certificate, key): missing, unreadable, "
                                  "or a certificate without its key"
                                : "a client certificate needs the CA file or folder of the broker's certificate";
    // TLS 1.2 at least; verification of the chain, and of the host name
    // unless insecure.
    mosquitto_tls_opts_set(m_mosq, tls.insecure ? 0 : 1, "tlsv1.2", nullptr);
    mosquitto_tls_insecure_set(m_mosq, tls.insecure);
}
