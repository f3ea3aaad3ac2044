#ifndef DESKTOPCHAT_LOGINDIALOG_H
#define DESKTOPCHAT_LOGINDIALOG_H

// The login form: where the broker is, who logs in, and how the link is
// secured (TLS, a client certificate, a broker account).

#include <pushchat/pushclientoptions.h>

#include <QCheckBox>
#include <QDialog>
#include <QLineEdit>
#include <QSpinBox>

struct LoginSettings {
    QString host = QStringLiteral("127.0.0.1");
    int port = 1883;
    QString user;
    QString domain;   // empty: the host
    int level = 0;    // the user's security level
    QString httpBase; // the HTTP history service; empty: port 5201 of the host
    QString store;    // the message store's file; empty: the user's in the data folder
    PushClientOptions push;
};

class LoginDialog : public QDialog {
    Q_OBJECT
public:
    explicit LoginDialog(const LoginSettings &initial, QWidget *parent = nullptr);
    LoginSettings settings() const;

private:
    QLineEdit *m_host, *m_user, *m_domain, *m_httpBase, *m_caFile, *m_certFile, *m_keyFile, *m_username, *m_password;
    QSpinBox *m_port, *m_level;
    QCheckBox *m_tls, *m_insecure;
};

#endif // DESKTOPCHAT_LOGINDIALOG_H
