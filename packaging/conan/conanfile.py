# Builds the tree that it lies in:
#
#     conan create packaging/conan --build=missing
#
# With -o "kvffmpeg/*:system_dependencies=True" FFmpeg and the rest are those of the system, found by pkg-config and
# CMake, and none comes from a package server.

import os
import re

from conan import ConanFile
from conan.errors import ConanInvalidConfiguration
from conan.tools.build import check_min_cppstd
from conan.tools.cmake import CMake, CMakeDeps, CMakeToolchain, cmake_layout
from conan.tools.files import copy, load, rmdir
from conan.tools.gnu import PkgConfigDeps

required_conan_version = ">=2.0"


class KvffmpegConan(ConanFile):
    name = "kvffmpeg"
    description = "A value-oriented C++ object model over FFmpeg and FreeType"
    license = "MIT"
    topics = ("ffmpeg", "video", "audio")
    package_type = "shared-library"
    settings = "os", "arch", "compiler", "build_type"
    options = {"system_dependencies": [True, False], "tools": [True, False]}
    default_options = {"system_dependencies": False, "tools": False}

    @property
    def _tree(self):
        return os.path.join(self.recipe_folder, os.pardir, os.pardir)

    def set_version(self):
        # The one place of the version is the project's.
        text = load(self, os.path.join(self._tree, "CMakeLists.txt"))
        self.version = re.search(r"project\(kvffmpeg VERSION ([0-9.]+)", text).group(1)

    def export_sources(self):
        for pattern in ("CMakeLists.txt", "LICENSE", "cmake/*", "include/*", "logger/*", "src/*", "tools/*"):
            copy(self, pattern, src=self._tree, dst=self.export_sources_folder)

    def requirements(self):
        if self.options.system_dependencies:
            return
        # The public headers include FFmpeg's.
        self.requires("ffmpeg/[>=4.4 <8]", transitive_headers=True, transitive_libs=True)
        self.requires("freetype/[>=2.10]")
        self.requires("boost/[>=1.71]", headers=True, libs=False)
        self.requires("spdlog/[>=1.5]")
        if self.options.tools:
            self.requires("cli11/[>=2.1]")
            self.requires("nlohmann_json/[>=3.9]")

    def build_requirements(self):
        if not self.options.system_dependencies:
            self.tool_requires("pkgconf/[>=1.9]")

    def validate(self):
        check_min_cppstd(self, 17)
        if self.settings.os != "Linux":
            raise ConanInvalidConfiguration("kvffmpeg is for Linux")

    def layout(self):
        cmake_layout(self)

    def generate(self):
        toolchain = CMakeToolchain(self)
        toolchain.cache_variables["KVFFMPEG_BUILD_TESTS"] = False
        toolchain.cache_variables["KVFFMPEG_BUILD_EXAMPLES"] = False
        toolchain.cache_variables["KVFFMPEG_BUILD_TOOLS"] = bool(self.options.tools)
        toolchain.generate()
        CMakeDeps(self).generate()
        PkgConfigDeps(self).generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        copy(self, "LICENSE", src=self.source_folder, dst=os.path.join(self.package_folder, "licenses"))
        CMake(self).install()
        # Conan makes these of package_info().
        rmdir(self, os.path.join(self.package_folder, "lib", "cmake"))
        rmdir(self, os.path.join(self.package_folder, "lib", "pkgconfig"))

    def package_info(self):
        self.cpp_info.set_property("cmake_file_name", "kvffmpeg")

        logger = self.cpp_info.components["logger"]
        logger.set_property("cmake_target_name", "kvffmpeg::logger")
        logger.libs = ["log"]

        library = self.cpp_info.components["kvffmpeg"]
        library.set_property("cmake_target_name", "kvffmpeg::kvffmpeg")
        library.set_property("pkg_config_name", "kvffmpeg")
        library.libs = ["kvffmpeg"]
        library.requires = ["logger"]
        if self.options.system_dependencies:
            library.system_libs = ["avformat", "avcodec", "avutil"]
        else:
            logger.requires = ["spdlog::spdlog"]
            library.requires += ["ffmpeg::avformat", "ffmpeg::avcodec", "ffmpeg::avutil", "ffmpeg::avfilter",
                                 "ffmpeg::swscale", "ffmpeg::swresample", "freetype::freetype", "boost::headers"]
            if self.options.tools:
                library.requires += ["cli11::cli11", "nlohmann_json::nlohmann_json"]
