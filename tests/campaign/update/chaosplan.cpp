#include "chaosplan.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <iterator>

namespace kxtest {
namespace {

using Random = QRandomGenerator;

enum class Framing { Length, Chunked, UntilClose };

/** A reply that is right as it stands, in the parts that faults take it to. */
struct Response
{
    int status = 200;
    QList<QByteArray> headers;
    QByteArray body; // packed, if it is
    Framing framing = Framing::Length;
    qint64 declared = -1; // Content-Length as told; -1: the true one

    QByteArray Head() const
    {
        QByteArray head = "HTTP/1.1 " + QByteArray::number(status) + " Status\r\n";
        for (const QByteArray& header : headers)
            head += header + "\r\n";
        if (framing == Framing::Length)
            head += "Content-Length: " +
                    QByteArray::number(declared >= 0 ? declared : qint64(body.size())) + "\r\n";
        else if (framing == Framing::Chunked)
            head += "Transfer-Encoding: chunked\r\n";
        else
            head += "Connection: close\r\n";
        return head + "\r\n";
    }
};

struct Context
{
    const ChaosRequest& request;
    const QString& baseUrl;
    const QByteArray& content; // of the whole file
    int timeoutMs;
    bool isXml;
    Response response; // what a good server would answer
};

ChaosStep Send(const QByteArray& bytes)
{
    return {ChaosStep::Send, bytes, 0};
}

ChaosStep Pause(int milliseconds)
{
    return {ChaosStep::Pause, {}, milliseconds};
}

const ChaosStep hold{ChaosStep::Hold, {}, 0};
const ChaosStep close{ChaosStep::Close, {}, 0};
const ChaosStep reset{ChaosStep::Reset, {}, 0};

int Below(Random& random, qint64 limit)
{
    return limit <= 0 ? 0 : int(random.bounded(quint32(limit)));
}

bool OneIn(Random& random, int times)
{
    return Below(random, times) == 0;
}

QByteArray Noise(Random& random, int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (char& byte : bytes)
        byte = char(Below(random, 256));
    return bytes;
}

// `body` in chunks of random sizes, without the mark of the end.
QByteArray Chunks(Random& random, const QByteArray& body)
{
    QByteArray chunks;
    for (qsizetype at = 0; at < body.size();) {
        const qsizetype size =
            1 + Below(random, qMin<qsizetype>(body.size() - at, qsizetype(1) << 14));
        const QByteArray chunk = body.mid(at, size);
        chunks += QByteArray::number(chunk.size(), 16) + "\r\n" + chunk + "\r\n";
        at += chunk.size();
    }
    return chunks;
}

QByteArray Raw(Random& random, const Response& response)
{
    if (response.framing != Framing::Chunked)
        return response.Head() + response.body;
    return response.Head() + Chunks(random, response.body) + "0\r\n\r\n";
}

// Sent in one go, or in pieces with short silences between them.
QList<ChaosStep> Pieces(Random& random, const QByteArray& bytes, int timeoutMs)
{
    if (bytes.size() < 2 || OneIn(random, 2))
        return {Send(bytes)};
    QList<ChaosStep> steps;
    const int pieces = 2 + Below(random, 4);
    qsizetype at = 0;
    for (int piece = 1; piece < pieces && at < bytes.size(); ++piece) {
        const qsizetype size = 1 + Below(random, bytes.size() - at);
        steps << Send(bytes.mid(at, size)) << Pause(Below(random, qMin(5, timeoutMs / 8)));
        at += size;
    }
    steps << Send(bytes.mid(at));
    return steps;
}

QList<ChaosStep> Good(Random& random, const Context& context)
{
    QList<ChaosStep> steps = Pieces(random, Raw(random, context.response), context.timeoutMs);
    if (context.response.framing == Framing::UntilClose)
        steps << close;
    return steps;
}

// The good reply up to some byte, and then `end`.
QList<ChaosStep> CutBy(Random& random, const Context& context, const ChaosStep& end)
{
    const QByteArray raw = Raw(random, context.response);
    QList<ChaosStep> steps = Pieces(random, raw.left(Below(random, raw.size())), context.timeoutMs);
    // Together with the last bytes, or later than them.
    if (OneIn(random, 2))
        steps << Pause(Below(random, 10));
    return steps << end;
}

QList<ChaosStep> ResetAtOnce(Random&, const Context&)
{
    return {reset};
}

QList<ChaosStep> CloseAtOnce(Random&, const Context&)
{
    return {close};
}

QList<ChaosStep> ResetInside(Random& random, const Context& context)
{
    return CutBy(random, context, reset);
}

QList<ChaosStep> CloseInside(Random& random, const Context& context)
{
    return CutBy(random, context, close);
}

QList<ChaosStep> StallForGood(Random& random, const Context& context)
{
    return CutBy(random, context, hold);
}

QList<ChaosStep> StallAWhile(Random& random, const Context& context)
{
    const QByteArray raw = Raw(random, context.response);
    const qsizetype at = Below(random, raw.size());
    QList<ChaosStep> steps{Send(raw.left(at)), Pause(Below(random, context.timeoutMs)),
                           Send(raw.mid(at))};
    if (context.response.framing == Framing::UntilClose)
        steps << close;
    return steps;
}

// A length that is not the body's: what is told is less, or the connection ends before it is here.
QList<ChaosStep> WrongLength(Random& random, const Context& context)
{
    Response response = context.response;
    response.framing = Framing::Length;
    const qint64 size = response.body.size();
    switch (Below(random, 4)) {
    case 0:
        response.declared = Below(random, size);
        break;
    case 1:
        response.declared = size + 1 + Below(random, 1000);
        break;
    case 2:
        response.declared = size + (qint64(1) << 40);
        break;
    default:
        response.headers << "Content-Length: " + QByteArray::number(size + 7);
        break;
    }
    return {Send(Raw(random, response)), Pause(Below(random, 5)), close};
}

// Ends in good order as far as the transport says, with less than there should be.
QList<ChaosStep> CutAsIfWhole(Random& random, const Context& context)
{
    Response response = context.response;
    response.body.truncate(Below(random, response.body.size()));
    QList<ChaosStep> steps{Send(Raw(random, response))};
    if (response.framing == Framing::UntilClose)
        steps << close;
    return steps;
}

QList<ChaosStep> BadChunks(Random& random, const Context& context)
{
    Response response = context.response;
    response.framing = Framing::Chunked;
    QByteArray chunks = Chunks(random, response.body);
    switch (Below(random, 4)) {
    case 0: // the mark of the end never comes
        break;
    case 1: // a size that is none
        chunks = "zz\r\n" + chunks;
        break;
    case 2: // a size beyond all measure
        chunks = "fffffffffffffff\r\n" + chunks;
        break;
    default: // a cut inside
        chunks.truncate(Below(random, chunks.size()));
        break;
    }
    return {Send(response.Head()), Send(chunks), Pause(Below(random, 10)), close};
}

// Packed, whether that was asked for or not, and not whole.
QList<ChaosStep> BadPacking(Random& random, const Context& context)
{
    Response response = context.response;
    response.headers.removeIf(
        [](const QByteArray& header) { return header.startsWith("Content-Encoding"); });
    QByteArray packed = qCompress(context.content).mid(4);
    switch (Below(random, 3)) {
    case 0:
        response.headers << "Content-Encoding: deflate";
        packed.truncate(Below(random, packed.size() - 4));
        break;
    case 1:
        response.headers << "Content-Encoding: gzip";
        packed = Noise(random, 200);
        break;
    default:
        response.headers << "Content-Encoding: x-unheard-of";
        break;
    }
    response.body = packed;
    QList<ChaosStep> steps{Send(Raw(random, response))};
    if (response.framing == Framing::UntilClose)
        steps << close;
    return steps;
}

QList<ChaosStep> CorruptBody(Random& random, const Context& context)
{
    Context changed = context;
    Response& response = changed.response;
    if (context.isXml) {
        // Doubled, so that no parser can take it for another document.
        response.headers.clear();
        response.body = context.content;
        const QList<QByteArray> parts = response.body.split('<');
        const int which = 1 + Below(random, parts.size() - 1);
        response.body = parts.mid(0, which).join('<') + "<<" + parts.mid(which).join('<');
        return Good(random, changed);
    }
    const int times = 1 + Below(random, 3);
    for (int i = 0; i < times && !response.body.isEmpty(); ++i) {
        char& byte = response.body[Below(random, response.body.size())];
        byte = char(byte ^ (1 << Below(random, 8)));
    }
    return Good(random, changed);
}

QList<ChaosStep> CorruptHead(Random& random, const Context& context)
{
    QByteArray head = context.response.Head();
    const int times = 1 + Below(random, 3);
    for (int i = 0; i < times; ++i)
        head[Below(random, head.size() - 4)] = char(Below(random, 256));
    const QByteArray body = Raw(random, context.response).mid(context.response.Head().size());
    QList<ChaosStep> steps{Send(head + body)};
    // Whatever the client makes of it, the connection is of no more use.
    return steps << Pause(Below(random, 10)) << close;
}

QList<ChaosStep> NotHttp(Random& random, const Context& context)
{
    switch (Below(random, 4)) {
    case 0:
        return {Send(Noise(random, 1 + Below(random, 2000))), close};
    case 1: // as the first servers did it: no head at all
        return {Send("<html><body>hello</body></html>"), close};
    case 2: // a head that does not end
        return {Send("HTTP/1.1 200 OK\r\n"),
                Send(QByteArray("X-Padding: ") + QByteArray(300000, 'x')), close};
    default: // another version of the protocol
        return {Send("HTTP/3.7 200 OK\r\nContent-Length: 2\r\n\r\nok" +
                     Noise(random, context.timeoutMs % 7)),
                close};
    }
}

QList<ChaosStep> ErrorStatus(Random& random, const Context& context)
{
    static const int statuses[] = {400, 401, 403, 404, 405, 407, 408, 410, 416, 418, 425,
                                   429, 451, 500, 502, 503, 504, 507, 599, 204, 205, 304};
    Context changed = context;
    Response& response = changed.response;
    response = Response();
    response.status = statuses[Below(random, std::size(statuses))];
    const bool hasBody = response.status >= 400;
    if (hasBody && OneIn(random, 4))
        response.body = QByteArray(200000, 'e');
    else if (hasBody && OneIn(random, 2))
        response.body = "<html><body>It does not work.</body></html>";
    if (response.status == 401)
        response.headers << "WWW-Authenticate: Basic realm=\"somewhere\"";
    if (response.status == 503)
        response.headers << "Retry-After: 1";
    return Good(random, changed);
}

// A page that somebody else put there, as networks with a login do.
QList<ChaosStep> LoginPage(Random& random, const Context& context)
{
    Context changed = context;
    changed.response = Response();
    changed.response.headers << "Content-Type: text/html";
    changed.response.body = "<?xml version=\"1.0\"?><html><body>Please log in.</body></html>";
    return Good(random, changed);
}

QList<ChaosStep> TooMuch(Random& random, const Context& context)
{
    Context changed = context;
    Response& response = changed.response;
    switch (Below(random, 4)) {
    case 0: // more than the manifest says; well-formed text with more behind it is not
        response.headers.clear();
        response.body = context.content + "<more>" + Noise(random, 1 + Below(random, 50000));
        return Good(random, changed);
    case 1: // behind the end of the reply
        return {Send(Raw(random, response) + Noise(random, 1 + Below(random, 5000))),
                Pause(Below(random, 10)), close};
    case 2: // a whole reply that nobody asked for
        return {Send(Raw(random, response) + "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n<not>"),
                Pause(Below(random, 10)), close};
    default: { // much more than anybody wants
        QList<ChaosStep> steps{Send("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n")};
        for (int i = 0; i < 16; ++i)
            steps << Send(QByteArray(65536, '<'));
        return steps << close;
    }
    }
}

QList<ChaosStep> BadRedirect(Random& random, const Context& context)
{
    static const char* const places[] = {"ftp://127.0.0.1/file",
                                         "file:///etc/passwd",
                                         "data:,hello",
                                         "https://127.0.0.1:1/",
                                         "http://127.0.0.1:1/",
                                         "http://[::",
                                         "http://",
                                         "//",
                                         "?",
                                         "",
                                         "/missing",
                                         "\xff\xfe"};
    static const int statuses[] = {301, 302, 303, 307, 308, 300, 305};
    Context changed = context;
    Response& response = changed.response;
    response = Response();
    response.status = statuses[Below(random, std::size(statuses))];
    const int place = Below(random, std::size(places) + 2);
    if (place < int(std::size(places)))
        response.headers << QByteArray("Location: ") + places[place];
    else if (place == int(std::size(places))) // in a circle
        response.headers << "Location: " + context.request.path.toUtf8().toPercentEncoding("/");
    if (OneIn(random, 3))
        response.body = QByteArray(100, 'r');
    return Good(random, changed);
}

// A part that is not the one that was asked for, or a part that was not asked for at all.
QList<ChaosStep> WrongRange(Random& random, const Context& context)
{
    Context changed = context;
    Response& response = changed.response;
    response = Response();
    const qint64 size = context.content.size();
    const qint64 begin = Below(random, size);
    response.status = OneIn(random, 4) ? 416 : 206;
    const qint64 told = OneIn(random, 2) ? begin : begin + 1;
    const qint64 total = OneIn(random, 2) ? size : size + 1;
    response.headers << "Content-Range: bytes " + QByteArray::number(told) + '-' +
                            QByteArray::number(size - 1) + '/' + QByteArray::number(total);
    // Without its beginning a manifest is none, and with it it must be whole.
    response.body = context.content.mid(context.isXml ? qMax<qint64>(1, begin) : begin);
    return Good(random, changed);
}

// Nothing is wrong with the reply, but the connection does not stay, without having said so.
QList<ChaosStep> CloseIdle(Random& random, const Context& context)
{
    QList<ChaosStep> steps = Good(random, context);
    if (steps.last().kind == ChaosStep::Close)
        return steps;
    if (OneIn(random, 2))
        steps << Pause(Below(random, 10));
    return steps << (OneIn(random, 2) ? close : reset);
}

struct FaultRow
{
    const char* name;
    QList<ChaosStep> (*make)(Random&, const Context&);
};

// "restart" has no steps: it takes the whole server away.
const FaultRow faultRows[] = {
    {"reset at once", ResetAtOnce},
    {"close at once", CloseAtOnce},
    {"reset inside", ResetInside},
    {"close inside", CloseInside},
    {"stall for good", StallForGood},
    {"stall a while", StallAWhile},
    {"wrong length", WrongLength},
    {"cut as if whole", CutAsIfWhole},
    {"bad chunks", BadChunks},
    {"bad packing", BadPacking},
    {"corrupt body", CorruptBody},
    {"corrupt head", CorruptHead},
    {"not HTTP", NotHttp},
    {"error status", ErrorStatus},
    {"login page", LoginPage},
    {"too much", TooMuch},
    {"bad redirect", BadRedirect},
    {"wrong range", WrongRange},
    {"close idle", CloseIdle},
    {"restart", nullptr},
};

Response GoodResponse(Random& random, const ChaosRequest& request, const QByteArray& content,
                      bool isXml)
{
    Response response;
    response.body = content;
    response.framing = Framing(Below(random, 3));
    if (isXml && OneIn(random, 3)) {
        response.headers << "Content-Encoding: deflate";
        response.body = qCompress(content).mid(4);
    }
    // A good server need not know ranges.
    if (request.rangeBegin >= 0 && request.rangeBegin < content.size() && !OneIn(random, 4)) {
        response.status = 206;
        response.body = content.mid(request.rangeBegin);
        response.headers << "Content-Range: bytes " + QByteArray::number(request.rangeBegin) + '-' +
                                QByteArray::number(content.size() - 1) + '/' +
                                QByteArray::number(content.size());
    }
    return response;
}

quint32 Mixed(quint32 seed, const QString& path, int count)
{
    // FNV-1a: qHash() differs from process to process.
    quint32 hash = 2166136261u ^ seed;
    for (const char byte : path.toUtf8() + '#' + QByteArray::number(count))
        hash = (hash ^ quint8(byte)) * 16777619u;
    return hash;
}

} // namespace

ChaosPlan::ChaosPlan(const QString& directory) : directory(directory) {}

void ChaosPlan::SetSettings(const Settings& newSettings)
{
    settings = newSettings;
    requests.clear();
    happened.clear();
}

QStringList ChaosPlan::AllFaults()
{
    QStringList names;
    for (const FaultRow& row : faultRows)
        names << QString::fromLatin1(row.name);
    return names;
}

ChaosAnswer ChaosPlan::Answer(const ChaosRequest& request, const QString& baseUrl)
{
    const int count = ++requests[request.path];
    Random random(Mixed(settings.seed, request.path, count));
    QFile file(directory + request.path);
    const bool exists = QFileInfo(file).isFile() && file.open(QIODevice::ReadOnly);
    const QByteArray content = exists ? file.readAll() : QByteArray();
    const bool isXml = request.path.endsWith(QLatin1String(".xml"));
    Context context{request, baseUrl,
                    content, settings.timeoutMs,
                    isXml,   GoodResponse(random, request, content, isXml)};
    if (!exists) {
        context.response = Response();
        context.response.status = 404;
        return {{}, Good(random, context), 0};
    }
    QStringList names = settings.faults.isEmpty() ? AllFaults() : settings.faults;
    if (!settings.holds)
        names.removeOne(QStringLiteral("stall for good"));
    if (Below(random, 100) >= settings.percent)
        return {{}, Good(random, context), 0};

    ChaosAnswer answer;
    answer.fault = names.at(Below(random, names.size()));
    const auto* row = std::find_if(std::begin(faultRows), std::end(faultRows),
                                   [&answer](const FaultRow& candidate) {
                                       return answer.fault == QLatin1String(candidate.name);
                                   });
    if (row->make)
        answer.steps = row->make(random, context);
    else
        answer.downtimeMs = 1 + Below(random, settings.timeoutMs);
    happened
        << QStringLiteral("%1 (request %2): %3").arg(request.path).arg(count).arg(answer.fault);
    ++counts[answer.fault];
    return answer;
}

} // namespace kxtest
