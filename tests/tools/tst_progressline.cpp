#include "common/progressline.h"
#include "common/textwidth.h"

#include <QTest>

#include <clocale>
#include <cwchar>

namespace {

using tools::ProgressFigures;
using tools::ProgressLine;

ProgressFigures Download(int percent = 42)
{
    ProgressFigures figures;
    figures.step = QStringLiteral("downloading");
    figures.percent = percent;
    figures.filesDone = 12;
    figures.filesTotal = 200;
    figures.bytesDone = 36175872;
    figures.bytesTotal = 125829120;
    figures.bytesPerSecond = 2411724;
    figures.secondsLeft = 37;
    figures.file = QStringLiteral("share/translations/application_messages.qm");
    return figures;
}

ProgressFigures Copy(int percent)
{
    ProgressFigures figures;
    figures.step = QStringLiteral("copying");
    figures.percent = percent;
    return figures;
}

} // namespace

/** The line that shows how far a step has come, on terminals of every width and in logs. */
class TstProgressLine : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void LineFitsEveryWidth_data();
    void LineFitsEveryWidth();
    void WidthDecidesWhatIsShown_data();
    void WidthDecidesWhatIsShown();
    void FieldsKeepTheirPlaces();
    void NumbersAreWrittenForPeople_data();
    void NumbersAreWrittenForPeople();
    void TerminalIsDrawnOverAndErasedWhole();
    void NarrowedTerminalIsNeverOverfilled();
    void LogGetsALineNowAndThen_data();
    void LogGetsALineNowAndThen();
    void LogLineHasNoPadding();

    void ColumnsAreNeverUnderestimated();
    void CutTextsFit_data();
    void CutTextsFit();
    void ActingCharactersAreReplaced();
};

void TstProgressLine::LineFitsEveryWidth_data()
{
    QTest::addColumn<QString>("step");
    QTest::addColumn<QString>("file");
    QTest::addColumn<qint64>("bytes");
    QTest::addColumn<int>("seconds");

    const QString wide = QStringLiteral("深い場所/とても長いファイル名です.bin");
    QTest::newRow("usual") << "downloading" << Download().file << qint64(125829120) << 37;
    QTest::newRow("no file") << "downloading"
                             << "" << qint64(125829120) << 37;
    QTest::newRow("wide file") << "downloading" << wide << qint64(125829120) << 37;
    QTest::newRow("wide step") << wide << wide << qint64(125829120) << 37;
    QTest::newRow("emoji") << "downloading"
                           << QString(40, u'\u2600') +
                                  QStringLiteral("😀😀👩‍👩‍👧❤️")
                           << qint64(1) << -1;
    QTest::newRow("combining marks")
        << "downloading" << QStringLiteral("a\u0301").repeated(100) << qint64(125829120) << 37;
    QTest::newRow("long file") << "downloading" << QString(5000, u'x') << qint64(900) << 37;
    QTest::newRow("largest numbers")
        << "downloading"
        << "x" << std::numeric_limits<qint64>::max() << std::numeric_limits<int>::max();
    QTest::newRow("nothing known") << ""
                                   << "" << qint64(-1) << -1;
}

void TstProgressLine::LineFitsEveryWidth()
{
    QFETCH(QString, step);
    QFETCH(QString, file);
    QFETCH(qint64, bytes);
    QFETCH(int, seconds);
    ProgressFigures figures = Download();
    figures.step = step;
    figures.file = file;
    figures.bytesDone = figures.bytesTotal = figures.bytesPerSecond = bytes;
    figures.secondsLeft = seconds;
    for (int width = 1; width <= 200; ++width) {
        ProgressLine line(true);
        const QString text = line.Update(figures, width, 0);
        const QByteArray seen = QByteArray::number(width) + ": " + text.toUtf8();
        QVERIFY2(tools::Columns(text) <= width - 1, seen);
        if (width >= 20)
            QVERIFY2(text.contains(QLatin1String("42%")), seen);
        if (width >= 30)
            QVERIFY2(text.contains(step.left(5)), seen);
        QVERIFY2(!text.contains(u'\n') && !text.contains(u'\r'), seen);
    }
}

void TstProgressLine::WidthDecidesWhatIsShown_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<QString>("text");
    QTest::newRow("everything") << 120
                                << "  [########............]  42%  downloading   12/200 files   "
                                   "34.5/120.0 MiB   2.3 MiB/s  "
                                   " 0:37 left  share/tr...sages.qm";
    QTest::newRow("usual terminal")
        << 80 << "   42%  downloading   12/200 files   34.5/120.0 MiB   2.3 MiB/s   0:37 left";
    QTest::newRow("essentials") << 60
                                << " 42%  downloading   34.5/120.0 MiB   2.3 MiB/s   0:37 left";
    QTest::newRow("percentage and step") << 30 << " 42%  downloading   0:37 left";
    QTest::newRow("hardly anything") << 12 << " 42%  downl";
    QTest::newRow("nothing but the percentage") << 5 << " 42%";
    QTest::newRow("nothing") << 4 << "";
}

void TstProgressLine::WidthDecidesWhatIsShown()
{
    QFETCH(int, width);
    QFETCH(QString, text);
    QCOMPARE(tools::ProgressLineText(Download(), width - 1), text);
}

void TstProgressLine::FieldsKeepTheirPlaces()
{
    // A line whose parts jump about cannot be read.
    const ProgressFigures end = Download(100);
    for (const int width : {60, 80, 120}) {
        const QString last = tools::ProgressLineText(end, width);
        for (int percent = 0; percent < 100; ++percent) {
            ProgressFigures figures = Download(percent);
            figures.filesDone = figures.filesTotal * percent / 100;
            figures.bytesDone = figures.bytesTotal * percent / 100;
            figures.bytesPerSecond = (qint64(1) << (percent % 40)) * 999 / 1000;
            figures.secondsLeft = percent == 0 ? -1 : 3599 / percent;
            const QString text = tools::ProgressLineText(figures, width);
            for (const char* mark : {"downloading", "files", " MiB ", "/s", "left"})
                QVERIFY2(text.indexOf(QLatin1String(mark)) == last.indexOf(QLatin1String(mark)),
                         qPrintable(text + u'\n' + last));
        }
    }
}

void TstProgressLine::NumbersAreWrittenForPeople_data()
{
    QTest::addColumn<qint64>("bytes");
    QTest::addColumn<qint64>("speed");
    QTest::addColumn<int>("seconds");
    QTest::addColumn<QString>("text");
    const auto row = [](qint64 bytes, qint64 speed, int seconds, const char* text) {
        QTest::newRow(text) << bytes << speed << seconds << QString::fromLatin1(text);
    };
    row(0, 0, -1, "0 of 0 B, 0 B/s");
    row(999, 999, 0, "999 of 999 B, 999 B/s, 0:00 left");
    row(1000, 1000, 9, "1.0 of 1.0 KiB, 1.0 KiB/s, 0:09 left");
    row(1024 * 100, 1024 * 100, 60, "100.0 of 100.0 KiB, 100 KiB/s, 1:00 left");
    row(1024 * 1024 - 1, 1024 * 1024 - 1, 3599, "1.0 of 1.0 MiB, 1.0 MiB/s, 59:59 left");
    row(qint64(5) << 30, qint64(3) << 30, 3600, "5.0 of 5.0 GiB, 3.0 GiB/s, 1:00:00 left");
    row(qint64(2) << 40, qint64(2) << 50, 90061, "2.0 of 2.0 TiB, 2.0 PiB/s, 25:01:01 left");
}

void TstProgressLine::NumbersAreWrittenForPeople()
{
    QFETCH(qint64, bytes);
    QFETCH(qint64, speed);
    QFETCH(int, seconds);
    QFETCH(QString, text);
    ProgressFigures figures = Copy(7);
    figures.bytesDone = figures.bytesTotal = bytes;
    figures.bytesPerSecond = speed;
    figures.secondsLeft = seconds;
    QCOMPARE(tools::ProgressSentence(figures), QStringLiteral("    7%  copying, ") + text);
}

void TstProgressLine::TerminalIsDrawnOverAndErasedWhole()
{
    ProgressLine line(true);
    const QString first = line.Update(Download(), 60, 0);
    QCOMPARE(line.Update(Download(), 60, 0), QString());
    // The shorter line covers all of the longer one.
    const QString second = line.Update(Copy(43), 60, 0);
    QVERIFY(second.startsWith(u'\r'));
    QCOMPARE(tools::Columns(second.mid(1)), tools::Columns(first));
    QVERIFY(second.contains(QStringLiteral("copying")));

    const QString erasure = line.Erase(60);
    QVERIFY(erasure.startsWith(u'\r') && erasure.endsWith(u'\r'));
    QVERIFY(erasure.count(u' ') >= tools::Columns(second.trimmed()));
    QCOMPARE(line.Erase(60), QString());
    QCOMPARE(line.Redraw(60).trimmed(), second.trimmed());
    QCOMPARE(line.Leave(), QStringLiteral("\n"));
    QCOMPARE(line.Redraw(60), QString());
    line.Update(Copy(43), 60, 0);
    line.Erase(60);
    line.Reset();
    QCOMPARE(line.Redraw(60), QString());
}

void TstProgressLine::NarrowedTerminalIsNeverOverfilled()
{
    for (int width = 1; width <= 120; ++width) {
        ProgressLine line(true);
        line.Update(Download(), 121, 0);
        for (const QString& text :
             {line.Update(Download(43), width, 0), line.Erase(width), line.Redraw(width)}) {
            for (const QString& part : text.split(u'\r'))
                QVERIFY2(tools::Columns(part) <= width - 1, qPrintable(part));
        }
    }
}

void TstProgressLine::LogGetsALineNowAndThen_data()
{
    QTest::addColumn<int>("msPerPercent");
    QTest::addColumn<QList<int>>("percents");
    QTest::newRow("all at once") << 0 << QList<int>{100};
    QTest::newRow("in a second and a half") << 15 << QList<int>{67, 100};
    QTest::newRow("in half a minute") << 300 << QList<int>{10, 20, 30, 40, 50, 60, 70, 80, 90, 100};
    QTest::newRow("in a few minutes, a line at least every ten seconds")
        << 2000 << QList<int>{5,  10, 15, 20, 25, 30, 35, 40, 45, 50,
                              55, 60, 65, 70, 75, 80, 85, 90, 95, 100};
}

void TstProgressLine::LogGetsALineNowAndThen()
{
    QFETCH(int, msPerPercent);
    QFETCH(QList<int>, percents);
    ProgressLine line(false);
    QList<int> printed;
    for (int percent = 0; percent <= 100; ++percent) {
        const QString text = line.Update(Copy(percent), 0, 5000 + percent * msPerPercent);
        if (text.isEmpty())
            continue;
        QVERIFY(text.endsWith(QStringLiteral("copying\n")));
        printed.append(text.section(u'%', 0, 0).trimmed().toInt());
    }
    QCOMPARE(printed, percents);
    QCOMPARE(line.Erase(0) + line.Redraw(0) + line.Leave(), QString());
    // The next run begins anew.
    line.Reset();
    QCOMPARE(line.Update(Copy(1), 0, 900000), QString());
    QVERIFY(!line.Update(Copy(100), 0, 900000).isEmpty());
}

void TstProgressLine::LogLineHasNoPadding()
{
    QCOMPARE(tools::ProgressSentence(Download()),
             QStringLiteral("   42%  downloading, 12 of 200 files, 34.5 of 120.0 MiB, 2.3 MiB/s, "
                            "0:37 left"));
    QCOMPARE(tools::ProgressSentence(Copy(5)), QStringLiteral("    5%  copying"));
}

void TstProgressLine::ColumnsAreNeverUnderestimated()
{
    // The C library knows how wide terminals of this system show each character.
    QVERIFY(std::setlocale(LC_ALL, "C.UTF-8"));
    int wide = 0;
    for (uint c = 1; c <= 0x10ffff; ++c) {
        if (QChar::isSurrogate(c))
            continue;
        const int width = ::wcwidth(wchar_t(c));
        wide += width == 2 ? 1 : 0;
        const QString text = QString::fromUcs4(reinterpret_cast<const char32_t*>(&c), 1);
        QVERIFY2(tools::Columns(text) >= width, qPrintable(QString::number(c, 16)));
    }
    QVERIFY(wide > 10000);
    QCOMPARE(tools::Columns(QStringLiteral("für Привет ελ")), 13);
    QCOMPARE(tools::Columns(QStringLiteral("e\u0301")), 1);
    QCOMPARE(tools::Columns(QStringLiteral("場所")), 4);
    QCOMPARE(tools::Columns(QStringLiteral("😀")), 2);
}

void TstProgressLine::CutTextsFit_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("columns");
    QTest::addColumn<QString>("end");
    QTest::addColumn<QString>("middle");
    QTest::newRow("short") << "abc" << 3 << "abc"
                           << "abc";
    QTest::newRow("long") << "lib/directory/file.bin" << 12 << "lib/director"
                          << "lib/...e.bin";
    QTest::newRow("wide, half a character too much") << "場所場所場所" << 7 << "場所場"
                                                     << "場...所";
    QTest::newRow("outside of the first plane") << "😀😀😀😀😀" << 7 << "😀😀😀"
                                                << "😀...😀";
    QTest::newRow("too little room for a gap") << "abcdef" << 4 << "abcd"
                                               << "abcd";
    QTest::newRow("no room") << "abc" << 0 << ""
                             << "";
    QTest::newRow("negative room") << "abc" << -5 << ""
                                   << "";
}

void TstProgressLine::CutTextsFit()
{
    QFETCH(QString, text);
    QFETCH(int, columns);
    QTEST(tools::CutEnd(text, columns), "end");
    QTEST(tools::CutMiddle(text, columns), "middle");
}

void TstProgressLine::ActingCharactersAreReplaced()
{
    QCOMPARE(tools::Printable(QStringLiteral("a\u001bb\u009bc\u202ed\u2028e\nf\u007f")),
             QStringLiteral("a?b?c?d?e?f?"));
    // A tag character, outside of the first plane.
    const char32_t tag[] = {U'a', 0xe0041, U'b'};
    QCOMPARE(tools::Printable(QString::fromUcs4(tag, 3)), QStringLiteral("a?b"));
    QCOMPARE(tools::Printable(QStringLiteral("für 場所 😀")), QStringLiteral("für 場所 😀"));
}

QTEST_GUILESS_MAIN(TstProgressLine)
#include "tst_progressline.moc"
