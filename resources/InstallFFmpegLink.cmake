# Install step: links <data directory>/zelkor/ffmpeg to the system's ffmpeg and
# records the link in the install manifest, so that uninstalling removes it.
# The link is relative when ffmpeg lies under the same prefix: a tree unpacked
# into another root (a package, a DESTDIR) then points at that root's ffmpeg.

set(zelkor_link_dir "${CMAKE_INSTALL_PREFIX}/${ZELKOR_SHARE_REL}")
cmake_path(IS_PREFIX CMAKE_INSTALL_PREFIX "${ZELKOR_FFMPEG}" NORMALIZE zelkor_under_prefix)
if(zelkor_under_prefix)
    file(RELATIVE_PATH zelkor_target "${zelkor_link_dir}" "${ZELKOR_FFMPEG}")
else()
    set(zelkor_target "${ZELKOR_FFMPEG}")
endif()
# The manifest, like CMake's own entries, names the path without DESTDIR.
set(zelkor_link "${zelkor_link_dir}/ffmpeg")
message(STATUS "Installing: $ENV{DESTDIR}${zelkor_link} -> ${zelkor_target}")
file(MAKE_DIRECTORY "$ENV{DESTDIR}${zelkor_link_dir}")
file(CREATE_LINK "${zelkor_target}" "$ENV{DESTDIR}${zelkor_link}" SYMBOLIC)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${zelkor_link}")
