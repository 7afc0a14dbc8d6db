// What a test may rely on from the machine, a private home for each test process, and the
// few file chores every test would otherwise write out again.
#pragma once

#include <QJsonObject>
#include <QList>
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

// Replaces the file's content, making its folder first. False when anything failed.
bool writeFile(const QString &path, const QByteArray &content);
// The file's content, or empty when it cannot be read.
QByteArray readFile(const QString &path);
// One JSON object per non-empty line, as the test programs record what they saw.
QList<QJsonObject> readJsonLines(const QString &path);

} // namespace HMTestEnvironment
