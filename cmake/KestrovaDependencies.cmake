# Every third-party dependency is found here, once, as a Debian package (scripts/install-deps).
find_package(Threads REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
find_package(spdlog REQUIRED)
find_package(fmt REQUIRED)
find_package(date REQUIRED)
find_package(PkgConfig REQUIRED)

# Asio is header-only and ships no CMake package on Debian.
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
add_library(kestrova_asio INTERFACE)
target_include_directories(kestrova_asio SYSTEM INTERFACE ${ASIO_INCLUDE_DIR})
target_compile_definitions(kestrova_asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
target_link_libraries(kestrova_asio INTERFACE Threads::Threads)

if(KESTROVA_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()

find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
pkg_check_modules(LIBZIP REQUIRED IMPORTED_TARGET libzip)
find_package(EXPAT REQUIRED)
