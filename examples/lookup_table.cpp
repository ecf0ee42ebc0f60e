// Reduces the brightness of a picture to four levels, by a table with an entry for each value of luma:
//
//     kvffmpeg_example_lookup_table picture.png

#include <kvffmpeg/kvffmpeg.h>

#include <iostream>
#include <vector>

int main(int count, char** arguments) try {
    if (count != 2) {
        std::cerr << "usage: " << arguments[0] << " PICTURE\n";
        return 2;
    }
    // By way of RGB: from one range to another of the same format a scaler changes the label alone.
    kvffmpeg::Scaler scaler;
    const kvffmpeg::Picture rgb =
        scaler.convertToColorspace(kvffmpeg::loadPicture(arguments[1]), AV_PIX_FMT_RGB24, AVCOL_RANGE_JPEG);
    kvffmpeg::Picture picture = scaler.convertToColorspace(rgb, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG);
    if (picture.empty()) throw std::runtime_error("There is no picture in the file");

    std::vector<unsigned char> table(256);
    for (std::size_t value = 0; value < table.size(); ++value)
        table[value] = static_cast<unsigned char>(value / 64 * 85);  // 0, 85, 170, 255
    picture.makeEditable();
    picture.applyLUT(0, table);  // component 0 is luma
    savePicture(picture, "lookup_table.png");
    std::cout << "lookup_table.png: " << picture << '\n';
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
