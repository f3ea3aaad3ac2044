#ifndef PUSHCHAT_CONTACT_H
#define PUSHCHAT_CONTACT_H

// Contact: one contact record, a plain value type (copied whole into lists
// and callback arguments).
//
// Every text is a QByteArray holding UTF-8, as the records are read from
// and handed to the wire; ContactManager decodes them to QString when it
// calls the application. ContactManager::jsonToContact fills name, phone,
// sex, photoPath and address from JSON. The other fields are carried for
// the application: text7 and text8 are the extra texts of a subscription
// request, text7 with flag1 and flag2 those of a contact-info notice; the
// library gives text1, text2 and textList no meaning.

#include <QByteArray>
#include <QList>

class Contact {
public:
    QByteArray text1;
    QByteArray text2;
    QByteArray name;
    QByteArray phone;
    QByteArray sex;
    QByteArray photoPath;
    QByteArray text7;
    QByteArray text8;
    QByteArray address;
    bool flag1 = false;
    bool flag2 = false;
    QList<QByteArray> textList;
};

#endif // PUSHCHAT_CONTACT_H
