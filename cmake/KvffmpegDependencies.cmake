find_package(PkgConfig REQUIRED)
# What the public headers need, and what only the library itself calls.
pkg_check_modules(KvffmpegAv REQUIRED IMPORTED_TARGET libavformat>=57.83 libavcodec>=57.107 libavutil>=55.78)
pkg_check_modules(KvffmpegAvPrivate REQUIRED IMPORTED_TARGET libavfilter>=6.107 libswresample>=2.9 libswscale>=4.8)
pkg_check_modules(KvffmpegFreetype REQUIRED IMPORTED_TARGET freetype2)
find_package(Boost 1.65 REQUIRED)
