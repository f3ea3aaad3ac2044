#include "logindialog.h"

#include <QDialogButtonBox>
#include <QFormLayout>

LoginDialog::LoginDialog(const LoginSettings &initial, QWidget *parent) : QDialog(parent)
{
    setWindowTitle(tr("Log in to pushchat"));
    auto *form = new QFormLayout(this);
    const auto line = [&](const QString &label, const QString &text, const char *name) {
        auto *edit = new QLineEdit(text, this);
        edit->setObjectName(QLatin1String(name));
        form->addRow(label, edit);
        return edit;
    };
    m_host = line(tr("Broker host"), initial.host, "host");
    m_port = new QSpinBox(this);
    m_port->setRange(1, 65535);
    m_port->setValue(initial.port);
    form->addRow(tr("Port"), m_port);
    m_user = line(tr("User"), initial.user, "user");
    m_domain = line(tr("Domain"), initial.domain, "domain");
    m_domain->setPlaceholderText(tr("the host"));
    m_level = new QSpinBox(this);
    m_level->setRange(0, 9999);
    m_level->setValue(initial.level);
    form->addRow(tr("Security level"), m_level);
    m_httpBase = line(tr("History service"), initial.httpBase, "httpBase");
    m_httpBase->setPlaceholderText(tr("http://<host>:5201"));
    m_tls = new QCheckBox(tr("Connect with TLS"), this);
    m_tls->setChecked(initial.push.tls.enabled);
    form->addRow(QString(), m_tls);
    m_caFile = line(tr("CA file (PEM)"), QString::fromStdString(initial.push.tls.caFile), "caFile");
    m_certFile = line(tr("Client certificate"), QString::fromStdString(initial.push.tls.certFile), "certFile");
    m_keyFile = line(tr("Client key"), QString::fromStdString(initial.push.tls.keyFile), "keyFile");
    m_insecure = new QCheckBox(tr("Do not verify the broker (tests only)"), this);
    m_insecure->setChecked(initial.push.tls.insecure);
    form->addRow(QString(), m_insecure);
    m_username = line(tr("Broker account"), QString::fromStdString(initial.push.username), "username");
    m_password = line(tr("Password"), QString::fromStdString(initial.push.password), "password");
    m_password->setEchoMode(QLineEdit::Password);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    form->addRow(buttons);
}

LoginSettings LoginDialog::settings() const
{
    LoginSettings s;
    s.host = m_host->text().trimmed();
    s.port = m_port->value();
    s.user = m_user->text().trimmed();
    s.domain = m_domain->text().trimmed();
    s.level = m_level->value();
    s.httpBase = m_httpBase->text().trimmed();
    PushTlsOptions &tls = s.push.tls;
    tls.caFile = m_caFile->text().trimmed().toStdString();
    tls.certFile = m_certFile->text().trimmed().toStdString();
    tls.keyFile = m_keyFile->text().trimmed().toStdString();
    tls.insecure = m_insecure->isChecked();
    tls.enabled = m_tls->isChecked() || !tls.caFile.empty() || !tls.certFile.empty() || tls.insecure;
    s.push.username = m_username->text().trimmed().toStdString();
    s.push.password = m_password->text().toStdString();
    return s;
}
