#ifndef PUSHCHAT_CLI_IMAGEBODY_H
#define PUSHCHAT_CLI_IMAGEBODY_H

// Image message bodies for the client, made with the library's
// MessageTools: send --image turns an image file into an "image_encode"
// body (the picture carried as text); listen --save-images turns such a
// received body back into a JPEG file in the user's documents directory.

#include <QString>

#include <optional>

class ImageBody {
public:
    /// The compact JSON text of the "image_encode" body for the image file
    /// at `path`; empty, with one line in `error` that names the file and
    /// the reason, when it cannot be read, is not a picture in a format Qt
    /// reads, or is larger than the library encodes
    /// (ImageCodec::MAX_ENCODE_PIXELS; refused from the file's header,
    /// before any pixel is decoded).
    static QString encodeFile(const QString &path, QString *error);
    /// For a body whose "type" is "image_encode": writes the picture to a new
    /// file and returns its path (empty when that failed). For any other
    /// body: nullopt, and nothing is written.
    static std::optional<QString> saveIfEncoded(const QString &body);
    /// Creates the documents directory that saved images go to, if missing;
    /// its path, or an empty text when there is none or it cannot be made.
    static QString prepareDocumentsDirectory();
};

#endif // PUSHCHAT_CLI_IMAGEBODY_H
