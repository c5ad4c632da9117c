# SPDX-License-Identifier: Apache-2.0
# Finds what the parts that are built need of others, as ZLIB::ZLIB, zorva_fmt, zorva_asio and
# zorva_curses. Where something is missing, says what to install or which switch does without.
function(zorva_missing what package)
  message(FATAL_ERROR "${what} was not found. Install its development files "
    "(Debian: ${package}), or name the folder that they are in: -DCMAKE_PREFIX_PATH=FOLDER, "
    "in a cross build -DCMAKE_SYSROOT=FOLDER. " ${ARGN})
endfunction()

find_package(Threads REQUIRED)

if(ZORVA_SERVER OR ZORVA_OWN_CLIENT)
  find_package(ZLIB QUIET)
  if(NOT ZLIB_FOUND)
    zorva_missing("zlib" zlib1g-dev "Neither server nor client library can do without.")
  endif()
endif()

if(ZORVA_OWN_CLIENT)
  add_library(zorva_fmt INTERFACE)
  find_package(fmt QUIET)
  if(fmt_FOUND AND NOT ZORVA_FMT_HEADER_ONLY)
    target_link_libraries(zorva_fmt INTERFACE fmt::fmt)
  else()
    find_path(FMT_INCLUDE_DIR fmt/format.h)
    if(NOT FMT_INCLUDE_DIR)
      zorva_missing("fmt" libfmt-dev "Its headers are enough: -DFMT_INCLUDE_DIR=FOLDER. "
        "Without it, take a board's own client library: -DMON_CLIENT_LIBRARY=FILE")
    endif()
    message(STATUS "fmt: its headers alone, from ${FMT_INCLUDE_DIR}")
    target_include_directories(zorva_fmt SYSTEM INTERFACE ${FMT_INCLUDE_DIR})
    target_compile_definitions(zorva_fmt INTERFACE FMT_HEADER_ONLY=1)
  endif()
endif()

if(ZORVA_SERVER)
  find_path(ASIO_INCLUDE_DIR asio.hpp)
  if(NOT ASIO_INCLUDE_DIR)
    zorva_missing("asio.hpp" libasio-dev "Its headers are enough: -DASIO_INCLUDE_DIR=FOLDER. "
      "Without it, the server can be left out: -DZORVA_SERVER=OFF")
  endif()
  add_library(zorva_asio INTERFACE)
  target_include_directories(zorva_asio SYSTEM INTERFACE ${ASIO_INCLUDE_DIR})
endif()

if(ZORVA_PROGRAM)
  # pkg-config, where there is one, only says where else to look.
  find_package(PkgConfig QUIET)
  if(PKG_CONFIG_FOUND)
    pkg_check_modules(PKG_NCURSESW QUIET ncursesw)
  endif()
  find_path(NCURSESW_INCLUDE_DIR curses.h HINTS ${PKG_NCURSESW_INCLUDE_DIRS} PATH_SUFFIXES ncursesw)
  find_library(NCURSESW_LIBRARY ncursesw HINTS ${PKG_NCURSESW_LIBRARY_DIRS})
  if(NOT NCURSESW_INCLUDE_DIR OR NOT NCURSESW_LIBRARY)
    zorva_missing("ncurses for wide characters (curses.h, libncursesw)" libncurses-dev
      "Without it, the program can be left out: -DZORVA_PROGRAM=OFF")
  endif()
  # Some systems have the part that knows terminals in a library of its own.
  find_library(TINFO_LIBRARY NAMES tinfow tinfo HINTS ${PKG_NCURSESW_LIBRARY_DIRS})
  add_library(zorva_curses INTERFACE)
  target_include_directories(zorva_curses SYSTEM INTERFACE ${NCURSESW_INCLUDE_DIR})
  target_link_libraries(zorva_curses INTERFACE ${NCURSESW_LIBRARY})
  if(TINFO_LIBRARY)
    target_link_libraries(zorva_curses INTERFACE ${TINFO_LIBRARY})
  endif()
endif()
