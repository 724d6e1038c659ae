# The Debian package: `cpack -G DEB` in a built tree (scripts/package.sh does the whole run).
# The package installs under /usr whatever the tree's own install prefix; its library
# dependencies come from dpkg-shlibdeps, the media tools are declared by name.
include(GNUInstallDirs)

set(data ${PROJECT_SOURCE_DIR}/data)
# Debian wants a copyright file and a compressed changelog in the package's documentation folder.
install(FILES ${data}/debian/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tessarin)
set(changelog ${CMAKE_BINARY_DIR}/changelog.gz)
add_custom_command(OUTPUT ${changelog}
  COMMAND gzip -9nc ${data}/debian/changelog > ${changelog}
  DEPENDS ${data}/debian/changelog VERBATIM)
add_custom_target(tessarin_changelog ALL DEPENDS ${changelog})
install(FILES ${changelog} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tessarin)
install(FILES ${data}/com.tessarin.Tessarin.mime.xml
  DESTINATION ${CMAKE_INSTALL_DATADIR}/mime/packages RENAME com.tessarin.Tessarin.xml)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tessarin)
set(CPACK_PACKAGE_VENDOR "Tessarin")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Tessarin maintainers <maintainers@tessarin.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "convert videos to MP4, WebM and GIF with ffmpeg")
set(CPACK_PACKAGE_DESCRIPTION
  "Tessarin turns video files into other media: re-encoded videos and GIFs from\n"
  "presets, cuts without re-encoding, still frames, extracted audio, transcripts\n"
  "and screen recordings. All media work runs ffmpeg, ffprobe and gifsicle as\n"
  "child processes. The package holds the desktop application, the command-line\n"
  "tool and the file-manager helper.")
string(REPLACE ";" "" CPACK_PACKAGE_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://tessarin.org")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "ffmpeg, gifsicle")
# pkexec: installing the command for all users; gvfs-backends and avahi-daemon: network shares.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "pkexec, gvfs-backends, avahi-daemon")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_STRIP_FILES TRUE)
include(CPack)
