#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

#include <functional>

namespace kxtest {

/** What a run of kxpublish came to. */
struct PublishResult
{
    int status = -1000; //!< exit status, or the negative number of the signal that ended it
    QStringList out;    //!< lines of stdout
    QStringList err;    //!< lines of stderr, without "kxpublish: "
};

/** Makes `process` ready to start kxpublish; `inChild` runs in the child before the program. */
void PreparePublish(QProcess& process, const QStringList& arguments,
                    const std::function<void()>& inChild = {});
/** Starts kxpublish and waits for its end. */
PublishResult RunPublish(const QStringList& arguments, const std::function<void()>& inChild = {});
/** The result of a process that has ended; `err` as it was read elsewhere. */
PublishResult ResultOf(QProcess& process, const QByteArray& err);

/** Arguments that publish `tree`, with a program "app", as demo-app 2.4.1 for x64. */
QStringList AddArguments(const QString& tree, const QString& out);
/** `arguments` with another value for `option`. */
QStringList With(QStringList arguments, const QString& option, const QString& value);
/** Promotes `version`. */
QStringList PromoteArguments(const QString& version, const QString& out);

// For the child, before the program starts:

/** Makes modes of files count for root too. */
void DropFileRights();
/** No file may grow beyond `bytes`: writing more ends the program on the spot. */
void LimitFileSize(qint64 bytes);
/** No file may grow beyond `bytes`: writing more is an error. */
void LimitFileSizeGently(qint64 bytes);

} // namespace kxtest
