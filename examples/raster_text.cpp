// Makes a picture of a text with a raster font:
//
//     kvffmpeg_example_raster_text raster_font.png "Text in
//     two lines"

#include <kvffmpeg/kvffmpeg.h>

#include <iostream>

int main(int count, char** arguments) try {
    if (count != 3) {
        std::cerr << "usage: " << arguments[0] << " FONT TEXT\n";
        return 2;
    }
    kvffmpeg::RasterFont font;
    font.load(arguments[1]);
    kvffmpeg::TextRenderer renderer;
    renderer.setFont(font);

    // Bytes are glyphs, so the font says what text is: the one in examples/media has those of ISO 8859-1.
    const kvffmpeg::Picture picture = renderer.renderText(arguments[2]);
    if (picture.empty()) throw std::runtime_error("There is nothing to see in this text");
    savePicture(picture, "raster_text.png");
    std::cout << "raster_text.png: " << picture << ", glyphs of " << font.glyphWidth() << "x"
              << font.glyphHeight() << '\n';
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
