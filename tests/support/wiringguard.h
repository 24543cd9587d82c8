#pragma once

#include <QRegularExpression>
#include <QTest>

namespace kxtest {

/**
 * Fails the running test function on each warning about a connection that could not be made:
 * signatures are texts, checked only at run time. Called in init() of every test class.
 */
inline void FailOnWiringWarnings()
{
    QTest::failOnWarning(QRegularExpression(
        QStringLiteral("[Nn]o such (signal|slot|method)|QObject::connect|"
                       "Cannot queue arguments|QObject::disconnect|Incompatible sender")));
}

} // namespace kxtest
