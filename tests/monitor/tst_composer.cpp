#include "composer.h"
#include "datatable.h"

#include <QTest>

using namespace tessel::test;

using namespace tessel;

class TstComposer : public QObject
{
    Q_OBJECT
private slots:
    void parse_data()
    {
        QTest::addColumn<QString>("text");
        // The frames as "line:id:hex data", blank-separated.
        columns<QString, bool, QString>({"frames", "lastUnsent", "error"});
        row("one line", "T 181 xxxxx > 12 34\n", "1:181:1234", false, "");
        row("CR LF", "T 181 xxxxx > 12 34\r\nT 182 > 01\r\n", "1:181:1234 2:182:01", false, "");
        row("nothing after >", "T 701 >\n", "1:701:", false, "");
        row("trailing blanks after >", "T 701 >   \n", "1:701:", false, "");
        row("last line without line end", "T 181 > 01\nT 182 > 02", "1:181:01", true, "");
        row("only a line without end", "T 000 xxxxx > 81 00", "", true, "");
        // A typo stops the run with the line, rather than sending what it half reads.
        row("G1", "T 181 > 01\nT 182 > G1 1G\n", "1:181:01", false,
            "Line 2: data byte \"G1\" is not two hexadecimal digits. The lines "
            "before it were sent.");
        row("one digit", "T 181 > 1 2\n", "", false,
            "Line 1: data byte \"1\" is not two hexadecimal digits. The "
            "lines before it were sent.");
        row("identifier xxx", "T xxx > 01\n", "", false,
            "Line 1: the identifier \"xxx\" (columns 3-5) is not 000 "
            "to 7FF in hexadecimal. The lines before it were sent.");
        row("identifier 800", "T 800 > 01\n", "", false,
            "Line 1: the identifier \"800\" (columns 3-5) is not 000 "
            "to 7FF in hexadecimal. The lines before it were sent.");
        row("eight bytes", "T 181 > 01 02 03 04 05 06 07 08\n", "1:181:0102030405060708", false,
            "");
        row("ninth byte stops there",
            "T 181 > 01\nT 182 > 01 02 03 04 05 06 07 08 09\nT 183 > 03\n", "1:181:01", false,
            "Line 2 has more than 8 data bytes. The lines before it were sent.");
        row("blank lines passed over", "\nT 181 > 01\n   \n\nT 182 > 02\n", "2:181:01 5:182:02",
            false, "");
        row("no >", "T 181 > 01\nT 182 12\n", "1:181:01", false,
            "Line 2 has no \">\" before its data: \"T 182 12\". The lines before "
            "it were sent.");
        // A monitor trace line has the channel digit after the letter: its identifier's columns
        // hold " 18", which is refused rather than sent to identifier 000.
        row("trace line", "T0 181 2 000s000.000 > 12 34 \n", "", false,
            "Line 1: the identifier \" 18\" (columns 3-5) is not 000 to "
            "7FF in hexadecimal. The lines before it were sent.");
        // Only the first ">" separates; a later one is no byte.
        row("second >", "T 181 > 12 > 34\n", "", false,
            "Line 1: data byte \">\" is not two hexadecimal digits. The "
            "lines before it were sent.");
        row("short id", "T 7\n", "", false,
            "Line 1 has no \">\" before its data: \"T 7\". The lines before it "
            "were sent.");
    }

    void parse()
    {
        auto [text, frames, error] = fetch<QString, QString, QString>("text", "frames", "error");
        const ComposerScript script = parseComposerText(text);
        QStringList got;
        for (const ComposerFrame& f : script.frames)
            got << QStringLiteral("%1:%2:%3")
                       .arg(f.line)
                       .arg(f.id, 0, 16)
                       .arg(QString::fromLatin1(f.data.toHex()));
        QCOMPARE(got.join(QLatin1Char(' ')), frames);
        QTEST(script.lastLineUnsent, "lastUnsent");
        QCOMPARE(script.error, error);
    }
};

QTEST_APPLESS_MAIN(TstComposer)
#include "tst_composer.moc"
