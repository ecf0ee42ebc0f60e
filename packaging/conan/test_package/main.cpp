#include <kvffmpeg/kvffmpeg.h>

#include <iostream>

int main() {
    kvffmpeg::Picture picture({4, 2}, AV_PIX_FMT_RGBA);
    std::cout << picture.size() << '\n';
    return picture.empty() ? 1 : 0;
}
