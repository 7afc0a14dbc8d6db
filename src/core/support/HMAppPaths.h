// Where the application's companions live on disk.
//
// OpenVPN and the DNS proxy are expected beside the application's own executable (the
// package installs links named "openvpn" and "wisproute" in /usr/libexec/hollowmere; the
// build tree puts the same links beside the freshly built program). The resources OpenVPN
// is started in (certificates, up/down scripts) are always the installed, root-owned copy:
// the helper refuses any other "--cd", so a build-tree copy would only get the start
// refused.
#pragma once

#include <QString>

// The directory of the running executable (the installed program directory when no
// application object exists yet).
QString app_executable_directory();
// The installed resource directory, e.g. "/usr/share/hollowmere".
QString app_resource_directory();
