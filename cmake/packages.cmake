# What comes from elsewhere. Configuring names all that is missing at once, with Debian's packages for it and the
# option that does without.

# tavirn_missing(<what> <packages> [<option that does without>]): configuring goes on and fails at its end.
function(tavirn_missing what packages)
  if(ARGC GREATER 2)
    set(otherwise ", or leave out what needs it with ${ARGV2}")
  endif()
  message(SEND_ERROR "${what} is missing: install ${packages}${otherwise}.")
endfunction()

find_package(Threads REQUIRED)

find_package(SQLite3 QUIET)
if(NOT SQLite3_FOUND)
  tavirn_missing(SQLite libsqlite3-dev)
endif()

if(TAVIRN_TOOLS OR TAVIRN_TESTS)
  find_package(nlohmann_json QUIET)
  if(NOT nlohmann_json_FOUND)
    tavirn_missing("JSON for Modern C++" nlohmann-json3-dev "-DTAVIRN_TOOLS=OFF -DTAVIRN_TESTS=OFF")
  endif()
endif()

if(TAVIRN_TOOLS)
  find_package(CLI11 QUIET)
  if(NOT CLI11_FOUND)
    tavirn_missing(CLI11 libcli11-dev -DTAVIRN_TOOLS=OFF)
  endif()
  if(TAVIRN_RECORD)
    find_package(PkgConfig QUIET)
    if(PKG_CONFIG_FOUND)
      pkg_check_modules(GSTREAMER QUIET IMPORTED_TARGET
        gstreamer-1.0 gstreamer-app-1.0 gstreamer-pbutils-1.0 gstreamer-video-1.0)
    endif()
    if(NOT GSTREAMER_FOUND)
      tavirn_missing(GStreamer "pkg-config, libgstreamer1.0-dev and libgstreamer-plugins-base1.0-dev"
        -DTAVIRN_RECORD=OFF)
    endif()
  endif()
  if(TAVIRN_RTSP)
    find_package(PkgConfig QUIET)
    if(PKG_CONFIG_FOUND)
      pkg_check_modules(GST_RTSP QUIET IMPORTED_TARGET gstreamer-rtsp-1.0 gio-2.0)
    endif()
    if(NOT GST_RTSP_FOUND)
      message(STATUS "tavirn-rtsp is left out: it needs pkg-config, libgstreamer1.0-dev and "
        "libgstreamer-plugins-base1.0-dev.")
    endif()
  endif()
endif()

if(TAVIRN_TESTS)
  find_package(GTest QUIET)
  if(NOT TARGET GTest::gtest_main OR NOT TARGET GTest::gmock)
    tavirn_missing(GoogleTest "libgtest-dev and libgmock-dev" -DTAVIRN_TESTS=OFF)
  endif()
endif()

if(TAVIRN_BENCH)
  if(NOT TAVIRN_TOOLS OR NOT TAVIRN_TESTS)
    message(FATAL_ERROR "TAVIRN_BENCH needs TAVIRN_TOOLS and TAVIRN_TESTS: the benchmarks use parts of both.")
  endif()
  find_package(benchmark QUIET)
  if(NOT benchmark_FOUND)
    tavirn_missing("Google Benchmark" libbenchmark-dev -DTAVIRN_BENCH=OFF)
  endif()
endif()
