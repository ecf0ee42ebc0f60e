#pragma once

#include <optional>
#include <string>

#include "kvffmpeg/picture.h"

namespace kvffmpeg::tool {

/// What stands for standard output on the command line, and for standard input.
constexpr auto standardStream = "-";

/// Only formats whose files are what the encoder makes, with no container around it, can be written. Call
/// when the library has been asked to open something: before that, old releases of FFmpeg know no format at
/// all.
/// @throws UsageError when the ending of `path` stands for none of them.
void requirePictureFormat(const std::string& path);

/// Makes all formats known, where nothing has been opened before `requirePictureFormat`.
void makeFormatsKnown();

/// @throws std::runtime_error when `path` is the file `name`, which is read: `what` it is, such as "the
/// input", is in the text.
void refuseToOverwrite(const std::string& path, const std::string& name, const std::string& what);

/// Where to save one picture, as it stands on the command line.
struct PictureOutputOptions {
    std::string path;                   ///< `standardStream` is standard output.
    std::optional<std::string> format;  ///< Of standard output: "png", or another ending of files.
};

/// Where one picture is saved: a file, or standard output.
class PictureOutput {
public:
    /// @throws UsageError for a format without standard output, and when that is a terminal.
    explicit PictureOutput(PictureOutputOptions options);

    /// Call it when `requirePictureFormat` may be called. @throws UsageError when there is no such format.
    void requireFormat() const;
    /// True when the format's encoder keeps the alpha of rgba.
    bool canHaveAlpha() const;
    /// What on the command line says so: "--output: out.jpg" or "--to jpg".
    std::string formatOption() const;
    bool isStandardOutput() const { return options_.path == standardStream; }
    /// The file's name.
    const std::string& path() const { return options_.path; }
    /// As the function of that name; nothing is in the way of standard output.
    void refuseToOverwrite(const std::string& name, const std::string& what) const;

    /// @throws what `kvffmpeg::savePicture` and `writeOutput` throw.
    void save(const Picture& picture) const;
    /// Says on std::cout what was saved, "NAME: WHAT"; nothing on standard output, where the picture is.
    void summarize(const std::string& what) const;

private:
    /// A name with the ending of the format.
    std::string nameOfFormat() const;

    PictureOutputOptions options_;
};

}  // namespace kvffmpeg::tool
