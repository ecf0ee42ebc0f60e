#include <gmock/gmock.h>

extern "C" {
#include <libavutil/log.h>
}

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    // Many tests hand FFmpeg broken input on purpose; what it says of that would bury a failure.
    av_log_set_level(AV_LOG_QUIET);
    return RUN_ALL_TESTS();
}
