/** \file
 * Loggers, messages, and the macros that make them. */
#pragma once

#include <kxcommon/kxcommon_export.h>

#include <QIODevice>
#include <QString>
#include <QTextStream>

#include <cstddef>

/** The log: who receives messages, and what they carry. */
namespace common::logger {

/** Severities, numbered as syslog numbers them. Levels 0 to 7 are delivered. */
enum Level : int {
    Critical = 2, //!< a component could not be created or configured; the operation fails
    Error = 3,    //!< another component failed, or an argument was rejected
    Warning = 4,  //!< suspicious, but tolerated
    Info = 6,     //!< configuration and outcome
    Debug = 7,    //!< commands, requests and state changes
};

/** The first level that is never delivered. */
constexpr int levelLimit = 8;

/**
 * One finished log message, as a logger sees it.
 * References and pointers hold only while the message lives, that is, during ILogger::Log().
 */
class KXCOMMON_EXPORT IMessage
{
public:
    /** Severity, see Level. */
    virtual int Level() const = 0;
    /** Name of the category, for example "updater.core"; the address is the same for all messages
     * of one source unit. */
    virtual const char* Category() const = 0;
    /** The text, without time, level or line end. */
    virtual const QString& Text() const = 0;
    /** Line of the logging statement. */
    virtual int Line() const = 0;
    /** Path of the source file, as the build gave it. */
    virtual const char* File() const = 0;
    /** Qualified name of the function that logs, for example "updater::Downloader::Start". */
    virtual const char* Function() const = 0;

protected:
    ~IMessage() = default;
};

/**
 * Receives the log messages of the process.
 * Implement it and install it with SetLogger(); QtLogger in <kxcommon/qtlogger.h> is a ready one.
 */
class KXCOMMON_EXPORT ILogger
{
public:
    /**
     * Takes one message. Called from any thread, several at once included; must copy what it keeps
     * and must not throw.
     */
    virtual void Log(const IMessage& message) = 0;
    virtual ~ILogger();
};

/** The logger of the process, null while none is installed. Safe from any thread. */
KXCOMMON_EXPORT ILogger* GetLogger();

/**
 * Installs the logger of the process; null, which is the state at start, drops every message.
 * Not owned: the logger must live until another one is installed and no thread logs any more.
 * Safe from any thread.
 */
KXCOMMON_EXPORT void SetLogger(ILogger* logger);

/**
 * A message under construction: parts are inserted, the destructor delivers.
 * Lives for one statement on the stack of one thread. Delivered only if its level is below
 * levelLimit and the logger is not null.
 */
class Message : public IMessage
{
public:
    /** A text stream that writes into the string it owns. */
    class Stream : public QTextStream
    {
    public:
        Stream() { setString(&text, QIODevice::ReadWrite); }
        ~Stream() override = default;
        /** What has been written. */
        const QString& Text() const { return text; }

    private:
        Q_DISABLE_COPY(Stream)

        QString text;
    };

    /** `category`, `file` and `function` are kept as pointers and must outlive the message. */
    Message(ILogger* logger, const char* category, int level, const char* file,
            const char* function, int line)
        : logger(logger),
          category(category),
          level(level),
          file(file),
          function(function),
          line(line)
    {
    }

    ~Message()
    {
        if (level < levelLimit && logger)
            logger->Log(*this);
    }

    int Level() const override { return level; }
    const char* Category() const override { return category; }
    const QString& Text() const override { return stream.Text(); }
    int Line() const override { return line; }
    const char* File() const override { return file; }
    const char* Function() const override { return function; }

    /** \name Parts */
    /** \{ */
    /** Appends a part, with nothing before or after it; pointers in hexadecimal. */
    Message& operator<<(const QString& value) { return Insert(value); }
    Message& operator<<(const char* value) { return Insert(value); }
    Message& operator<<(int value) { return Insert(value); }
    Message& operator<<(unsigned int value) { return Insert(value); }
    Message& operator<<(qint64 value) { return Insert(value); }
    Message& operator<<(quint64 value) { return Insert(value); }
    Message& operator<<(const void* value) { return Insert(value); }
    /** \} */

private:
    Q_DISABLE_COPY(Message)

    template <typename T>
    Message& Insert(const T& value)
    {
        stream << value;
        return *this;
    }

    Stream stream;
    ILogger* logger;
    const char* category;
    int level;
    const char* file;
    const char* function;
    int line;
};

/**
 * The qualified function name cut out of the compiler's signature text, at compile time:
 * "virtual void updater::Downloader::Abort()" becomes "updater::Downloader::Abort".
 */
template <std::size_t N>
class FunctionName
{
public:
    /** Cuts the name out of `signature`. */
    constexpr explicit FunctionName(const char (&signature)[N])
    {
        std::size_t begin = 0;
        std::size_t end = 0;
        int depth = 0;
        for (; end + 1 < N; ++end) {
            const char c = signature[end];
            if (depth == 0 && c == '(') {
                // "(anonymous namespace)" is part of a name, any other one opens the arguments.
                if (signature[end + 1] != 'a' || (end != begin && signature[end - 1] != ':'))
                    break;
                while (signature[end] != ')')
                    ++end;
            } else if (depth == 0 && c == ':' && signature[end + 1] == ':' &&
                       signature[end + 2] == '<') {
                break; // a lambda, as compilers name it that do not list arguments before it
            } else if (c == '<') {
                ++depth;
            } else if (c == '>') {
                --depth;
            } else if (depth == 0 && (c == ' ' || c == '*' || c == '&')) {
                begin = end + 1;
            }
        }
        for (std::size_t i = begin; i < end; ++i)
            name[i - begin] = signature[i];
    }

    /** The name; lives as long as this object. */
    constexpr const char* Text() const { return name; }

private:
    char name[N] = {};
};

} // namespace common::logger

/** The compiler's text for the signature of the function that it stands in. */
#if defined(_MSC_VER)
#define KX_FUNCTION_SIGNATURE __FUNCSIG__
#else
#define KX_FUNCTION_SIGNATURE __PRETTY_FUNCTION__
#endif

/** Names the log category of a source unit; stands once per unit, after the includes. */
#define KX_LOG_CATEGORY(name)                                                                      \
    namespace {                                                                                    \
    [[maybe_unused]] constexpr char kxLoggerName[] = "main";                                       \
    [[maybe_unused]] constexpr char kxLogCategory[] = name;                                        \
    }

/**
 * Opens one log message of the unit's category: KX_LOG(Info) << "Fetched " << count << " files.";
 * An expression, so safe in if and else without braces. The function's name is cut inside a lambda,
 * whose signature begins with that of the function around it.
 */
#define KX_LOG(level)                                                                              \
    ::common::logger::Message(                                                                     \
        ::common::logger::GetLogger(), kxLogCategory, ::common::logger::level, __FILE__,           \
        [] {                                                                                       \
            static constexpr ::common::logger::FunctionName kxFunction(KX_FUNCTION_SIGNATURE);     \
            return kxFunction.Text();                                                              \
        }(),                                                                                       \
        __LINE__)
