// What a test may rely on from the machine, and a private home for each test process.
#pragma once

#include <QString>
#include <QTemporaryDir>
#include <memory>

namespace HMTestEnvironment {

// Points HOME and the XDG folders at a fresh temporary directory for this process, so no
// test reads or writes the developer's own files. Call first thing in initTestCase().
std::unique_ptr<QTemporaryDir> isolateUserDirectories();

bool isRoot();
// True when this process may create network namespaces (root with CAP_SYS_ADMIN).
bool canUseNetworkNamespaces();
// The absolute path of a program on PATH, or empty.
QString findProgram(const QString &name);
QString sourceDir();
QString buildDir();

} // namespace HMTestEnvironment
