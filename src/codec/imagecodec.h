#ifndef PUSHCHAT_IMAGECODEC_H
#define PUSHCHAT_IMAGECODEC_H

/// \file
/// ImageCodec, image files as message text.

#include <QString>
#include <pushchat/pushchat_export.h>

/// Turns an image file into message text and back.
///
/// The image text is the picture, shrunk until its pixel data is at most
/// 150000 bytes, saved as JPEG at the default quality, compressed with
/// qCompress (level 9) and written in base 64. Decoding writes the picture
/// as a new UUID-named ".jpg" file in the user's documents directory; the
/// caller owns that file (nothing deletes it).
///
/// Stateless: make an instance where needed; any thread may call it. Both
/// operations block on file and image work. Failures give an empty text and
/// a critical line in the "pushchat.codec" log category.
class PUSHCHAT_EXPORT ImageCodec {
public:
    /// The largest picture getEncodeImageStr takes: 64 Mi pixels (8192 x
    /// 8192), width x height as the file's header declares them. The picture
    /// is decoded once, at full size (4 bytes a pixel for most files, so at
    /// most 256 MiB), to be shrunk to a 350-pixel edge; a larger one is
    /// refused before its pixels are decoded, since decoding it would cost
    /// gigabytes and minutes (20000 x 20000 pixels take 1.6 GB) for the same
    /// small result. Camera pictures of up to about 64 megapixels pass.
    static constexpr qint64 MAX_ENCODE_PIXELS = 64ll * 1024 * 1024;

    /// The image text of the picture in `path`, shrunk starting from `rate`
    /// (1.0 for the full 350-pixel edge). Empty when the file cannot be read
    /// as an image or its picture has more than MAX_ENCODE_PIXELS pixels.
    QString getEncodeImageStr(QString path, float rate);

    /// Writes the picture that `text` carries into the documents directory
    /// and returns the file's path; empty when the text is no image text or
    /// the file cannot be written. `text` is not modified.
    QString getDecodeImagePath(QString &text);
};

#endif // PUSHCHAT_IMAGECODEC_H
