// Line-driven front end of VantrelCrypt for the interoperability test
// (cipher_model.py). One request per line on standard input, one answer per
// line on standard output:
//   keys                                -> the key table, one decimal value per line
//   enc <key> <compression> <integrity> <hex plaintext>
//                                       -> "ok <base 64 text>" | "fail <lastStatus>"
//   dec <key> <base 64 text>            -> "ok <hex plaintext>" | "fail <lastStatus>"
// Keys are decimal. The text forms are the ones the message envelope uses.

#include "vantrelcrypt.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QtGlobal>

#include <iostream>
#include <string>

namespace {

void quietMessages(QtMsgType, const QMessageLogContext &, const QString &) {}

QByteArray answer(const QList<QByteArray> &words)
{
    const QByteArray &command = words.value(0);
    if (command == "keys" && words.size() == 1) {
        QByteArray lines;
        for (int i = 0; i < keyListLength; ++i)
            lines += (i ? "\n" : "") + QByteArray::number(keyList[i]);
        return lines;
    }
    bool keyOk = false;
    VantrelCrypt crypt(words.value(1).toULongLong(&keyOk));
    if (command == "enc" && words.size() == 5 && keyOk) {
        crypt.compressionPolicy = words[2].toInt();
        crypt.integrityCheck = words[3].toInt();
        const QString text = crypt.encryptToString(QByteArray::fromHex(words[4]));
        return text.isEmpty() ? "fail " + QByteArray::number(crypt.lastStatus) : "ok " + text.toLatin1();
    }
    if (command == "dec" && words.size() == 3 && keyOk) {
        crypt.lastStatus = -1;
        const QByteArray plain = crypt.decryptToByteArray(QString::fromLatin1(words[2]));
        return plain.isNull() ? "fail " + QByteArray::number(crypt.lastStatus) : "ok " + plain.toHex();
    }
    return "error unknown request";
}

} // namespace

int main()
{
    qInstallMessageHandler(quietMessages);
    std::string line;
    while (std::getline(std::cin, line)) {
        // split() keeps a trailing empty field: "enc 1 0 1 " has an empty plaintext.
        std::cout << answer(QByteArray::fromStdString(line).split(' ')).constData() << '\n';
    }
    return 0;
}
