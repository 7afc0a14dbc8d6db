# The Debian package, built with CPack from the install rules of every folder:
#   cmake -S . -B build-deb -G Ninja -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_BUILD_TYPE=Release \
#         -DHM_BUILD_TESTS=OFF -DHM_BUILD_BENCHMARKS=OFF
#   cmake --build build-deb && (cd build-deb && cpack)
# (packaging/build-deb.sh does exactly that and packaging/check-deb.sh checks the result.)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME hollowmere)
set(CPACK_PACKAGE_VENDOR Hollowmere)
set(CPACK_PACKAGE_CONTACT "Hollowmere <support@hollowmere.com>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "VPN client for the Hollowmere service")
# CPack puts the summary first and indents these lines under it.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "A tray application that signs you in to your Hollowmere account,
lets you pick a country and switches an OpenVPN tunnel on and off, with
selective routing by domain lists, a privacy filter and diagnostics.
hollowmerectl drives it from the command line; the helper hmwispd, started
by systemd, runs OpenVPN for members of the group hollowmere.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://www.hollowmere.com/")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# libssl3 for libcrypto.so.3, which the keyring session loads at run time (shlibdeps cannot
# see it).
set(CPACK_DEBIAN_PACKAGE_DEPENDS "openvpn (>= 2.6), pkexec, polkitd, dbus-user-session | dbus-x11, adduser, libqt6svg6, libssl3")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "qt6-wayland, gnome-keyring | keepassxc")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "gnome-shell-extension-appindicator")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/deb/postinst
    ${PROJECT_SOURCE_DIR}/packaging/deb/prerm
    ${PROJECT_SOURCE_DIR}/packaging/deb/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_SOURCE_IGNORE_FILES "/build.*/;/\\\\.git/")
include(CPack)
