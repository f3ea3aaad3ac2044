#ifndef PUSHCHAT_CONTACT_H
#define PUSHCHAT_CONTACT_H

/// \file
/// Contact, one contact record.

#include <QByteArray>
#include <QList>

/// One contact record, a plain value type (copied whole into lists and
/// callback arguments).
///
/// Every text is a QByteArray holding UTF-8, as the records are read from
/// and handed to the wire; ContactManager decodes them to QString when it
/// calls the application. ContactManager::jsonToContact fills name, phone,
/// sex, photoPath and address from JSON. The other fields are carried for
/// the application: text7 and text8 are the extra texts of a subscription
/// request, text7 with flag1 and flag2 those of a contact-info notice; the
/// library gives text1, text2 and textList no meaning.
class Contact {
public:
    QByteArray text1;           ///< no meaning to the library
    QByteArray text2;           ///< no meaning to the library
    QByteArray name;            ///< JSON "name"
    QByteArray phone;           ///< JSON "phone" (the last element of the array)
    QByteArray sex;             ///< JSON "sex"
    QByteArray photoPath;       ///< JSON "photo_path"
    QByteArray text7;           ///< extra text of a subscription request or contact-info notice
    QByteArray text8;           ///< second extra text of a subscription request
    QByteArray address;         ///< JSON "address"
    bool flag1 = false;         ///< first flag of a contact-info notice
    bool flag2 = false;         ///< second flag of a contact-info notice
    QList<QByteArray> textList; ///< no meaning to the library
};

#endif // PUSHCHAT_CONTACT_H
