#ifndef PUSHCHAT_MESSAGETOOLS_H
#define PUSHCHAT_MESSAGETOOLS_H

/// \file
/// MessageTools, the chat message body formatter.

#include <QJsonObject>
#include <QString>
#include <pushchat/pushchat_export.h>

/// Formats chat message bodies and converts them between their sending and
/// receiving forms.
///
/// A body is a compact JSON object with "type" ("text", "image_with_path" or
/// "image_encode"), "body" (the text, a local image path, or an image text of
/// ImageCodec) and an optional "remote_url" that conversions carry along.
/// A sender turns "image_with_path" into "image_encode" with parserMessage
/// (the file is read and encoded); a receiver turns "image_encode" back into
/// "image_with_path" (the picture is written to the documents directory).
///
/// Stateless: make an instance where needed; any thread may call it. Image
/// conversions block on file and image work.
class PUSHCHAT_EXPORT MessageTools {
public:
    /// {"body": text, "type": "text"} as compact JSON.
    QString formatTextMessage(QString text);
    /// {"body": image text of `path` at rate 1.0, "type": "image_encode"};
    /// the body is empty when the file is no image or its picture is over
    /// ImageCodec::MAX_ENCODE_PIXELS.
    QJsonObject formatEncodeImageMessage(QString path);
    /// {"body": path of the saved picture, "type": "image_with_path"}; the
    /// body is empty when the text does not decode or cannot be saved.
    QJsonObject formatDecodeImageMessage(QString text);
    /// Converts a body: "text" bodies come back unchanged, image bodies are
    /// converted to the other image kind (keeping "remote_url"), other
    /// objects are re-serialised, and anything that is not a JSON object
    /// becomes the text of a "text" body (so does an object text with
    /// arrays or nested objects that repeats a key: see jsonkeycheck.h).
    QString parserMessage(QString body);
};

#endif // PUSHCHAT_MESSAGETOOLS_H
