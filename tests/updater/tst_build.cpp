#include "wiringguard.h"

#include <kxcommon/shell.h>
#include <kxupdater/build.h>

#include <QSysInfo>
#include <QTest>

#include <type_traits>

using updater::Build;

/** The fixed names of the server tree. */
class TestBuild : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }

    void SystemNameIsAlwaysWindows() { QCOMPARE(Build::OSName(), QString("windows")); }
    void SystemVersionIsAlwaysXP() { QCOMPARE(Build::OSVersion(), QString("XP")); }
    void PlatformFollowsTheSystem();
    void SixtyFourBitSystemIsRecognised();
    void HasNoInstancesButAssignments();
};

void TestBuild::PlatformFollowsTheSystem()
{
    QCOMPARE(Build::Platform(), QString(common::Shell::Is64BitSystem() ? "x64" : "x86"));
}

void TestBuild::SixtyFourBitSystemIsRecognised()
{
    const QString architecture = QSysInfo::currentCpuArchitecture();
    QCOMPARE(common::Shell::Is64BitSystem(),
             architecture.contains("64") || architecture.startsWith("s390x"));
}

void TestBuild::HasNoInstancesButAssignments()
{
    static_assert(!std::is_default_constructible_v<Build>);
    static_assert(std::is_copy_assignable_v<Build>);
    static_assert(std::is_move_assignable_v<Build>);
    static_assert(std::is_empty_v<Build>);
    static_assert(std::is_same_v<decltype(Build::Platform()), QString>);
}

QTEST_GUILESS_MAIN(TestBuild)
#include "tst_build.moc"
