-- Builds update.so and the local relay libzovrelay.so with CMake and installs them side by side,
-- with the command update-mirror and its manual page; the LuaLS type stubs (types/), the examples
-- and the user documentation are copied into the rock. `luarocks make` builds it from the
-- checkout. A release builds from its source archive: `make rock` makes the archive with
-- `git archive` and packs it with this rockspec (the URL then names the archive's absolute
-- path) into build/dist/update-1.0.0-1.src.rock, which `luarocks build` turns into the
-- installed rock anywhere, offline. Needs a C++17 compiler, CMake 3.25, pkg-config and the
-- development files of Lua 5.2, libcurl, libzip and OpenSSL (on Debian: g++ cmake pkg-config
-- liblua5.2-dev libcurl4-openssl-dev libzip-dev libssl-dev).
rockspec_format = "3.0"
package = "update"
version = "1.0.0-1"
source = {
  url = "update-1.0.0.tar.gz",
  dir = "update-1.0.0",
}
description = {
  summary = "Mirror update components from update sources into a local repository, from Lua",
  detailed = [[
    update drives a relay library (libzovrelay.so) that mirrors scan engines, pattern files and
    rule packages from directory, file:// and http(s):// sources into a repository directory:
    listing, whole and selective mirroring with progress events, export of one component, and a
    clean-up of superseded package archives. The project's own relay library is built and
    installed beside the module.
  ]],
  labels = {"mirror", "updates"},
  license = "MIT",
}
dependencies = {
  "lua == 5.2",
  "lua-cjson >= 2.1",  -- the command decodes the relay's plan and writes --json with it
}
build = {
  type = "cmake",
  variables = {
    CMAKE_BUILD_TYPE = "Release",
    CMAKE_INSTALL_PREFIX = "$(PREFIX)",
    LUA_INCDIR = "$(LUA_INCDIR)",
    INSTALL_CMOD = "$(LIBDIR)",
    INSTALL_LMOD = "$(LUADIR)",
    UPDATE_TESTS = "OFF",
    LUA_INTERPRETER = "$(LUA)",
  },
  copy_directories = {"docs", "examples", "types"},
}
