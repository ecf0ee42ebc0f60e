# What somebody writes who has installed the development package.

cmake_minimum_required(VERSION 3.18)
project(first LANGUAGES CXX)

find_package(kvffmpeg 0.1 REQUIRED)

add_executable(first main.cpp)
target_link_libraries(first PRIVATE kvffmpeg::kvffmpeg)
