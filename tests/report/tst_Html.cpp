#include "report/Html.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::report;

class tst_Html : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void escapes_data();
    void escapes();
    void elementsCloseThemselves();
    void attributesCannotBeLeft();
    void longTextsAreCut();
    void nothingIsCutInTwo();
    void towersOfMarksAreCut();
};

void tst_Html::escapes_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("plain") << u"/about"_s << QByteArray("/about");
    QTest::newRow("element") << u"<script>alert(1)</script>"_s
                             << QByteArray("&lt;script&gt;alert(1)&lt;/script&gt;");
    QTest::newRow("end-of-attribute") << u"\" onload='x'"_s << QByteArray("&quot; onload=&#39;x&#39;");
    QTest::newRow("entity") << u"&lt;b&gt; & &#60;"_s << QByteArray("&amp;lt;b&amp;gt; &amp; &amp;#60;");
    QTest::newRow("other-scripts") << u"Grüße 東京 שלום"_s << u"Grüße 東京 שלום"_s.toUtf8();
    QTest::newRow("emoji-with-joiner") << u"👩\u200D💻"_s << u"👩\u200D💻"_s.toUtf8();
    QTest::newRow("nul") << (u"a"_s + QChar(0) + u"b"_s) << u"a\uFFFDb"_s.toUtf8();
    QTest::newRow("escape-and-delete") << u"\x1B[31m\x7F"_s << u"\uFFFD[31m\uFFFD"_s.toUtf8();
    QTest::newRow("c1-control") << u"a\u0085b"_s << u"a\uFFFDb"_s.toUtf8();
    QTest::newRow("right-to-left-override") << u"/\u202Egpj.exe"_s << u"/\uFFFDgpj.exe"_s.toUtf8();
    QTest::newRow("isolates-and-marks")
        << u"\u2066a\u2069\u200E\u061C"_s << u"\uFFFDa\uFFFD\uFFFD\uFFFD"_s.toUtf8();
    QTest::newRow("line-separator") << u"a\u2028b\u2029"_s << u"a\uFFFDb\uFFFD"_s.toUtf8();
    QTest::newRow("invisible") << u"a\u200Bb\uFEFF"_s << u"a\uFFFDb\uFFFD"_s.toUtf8();
    QTest::newRow("tag-characters") << QString::fromUcs4(U"x\U000E0061") << u"x\uFFFD"_s.toUtf8();
    QTest::newRow("lone-surrogates") << (u"a"_s + QChar(0xD800) + u"b"_s + QChar(0xDC00))
                                     << u"a\uFFFDb\uFFFD"_s.toUtf8();
    QTest::newRow("line-feed-and-tab") << u"a\nb\tc"_s << QByteArray("a\nb\tc");
}

void tst_Html::escapes()
{
    QFETCH(const QString, text);
    QTEST(escaped(text), "expected");
}

void tst_Html::elementsCloseThemselves()
{
    Html html;
    {
        const auto list = html.element("ul", {
                                                 {"class", u"bars"_s}
        });
        html.leaf("li", u"a & b");
        const auto item = html.element("li");
        html.lone("br");
        html.text(u"c");
    }
    const QByteArray expected = "<ul class=\"bars\"><li>a &amp; b</li><li><br/>c</li></ul>";
    QCOMPARE(html.bytes(), expected);
}

void tst_Html::attributesCannotBeLeft()
{
    Html html;
    html.leaf("td", u"x",
              {
                  {"title", u"\" onmouseover=\"alert(1)\" x=\"'<>"_s}
    });
    const QByteArray expected =
        "<td title=\"&quot; onmouseover=&quot;alert(1)&quot; x=&quot;&#39;&lt;&gt;\">x</td>";
    QCOMPARE(html.bytes(), expected);
}

void tst_Html::longTextsAreCut()
{
    const auto shown = [](const QString& text) {
        Html html;
        html.foreign(text);
        return html.bytes();
    };
    const QString most(kShownCharacters, u'a');
    QCOMPARE(shown(most), "<bdi>" + most.toUtf8() + "</bdi>");
    QCOMPARE(shown(most + u'b'),
             "<bdi title=\"" + most.toUtf8() + "b\">" + most.toUtf8() + u"…"_s.toUtf8() + "</bdi>");

    const QString titled(kTitleCharacters, u'a');
    QVERIFY(shown(titled).contains("title=\"" + titled.toUtf8() + "\""));
    QVERIFY(shown(titled + u'b').contains("title=\"" + titled.toUtf8() + u"…"_s.toUtf8() + "\""));
}

void tst_Html::nothingIsCutInTwo()
{
    QCOMPARE(shortened(u"ab😀"_s, 3), u"ab…"_s);
    QCOMPARE(shortened(u"ab😀"_s, 4), u"ab😀"_s);
    QCOMPARE(shortened(u"ab😀c"_s, 4), u"ab😀…"_s);
}

void tst_Html::towersOfMarksAreCut()
{
    const QString most = u'a' + QString(kMarksInARow, QChar(0x0339));
    QCOMPARE(escaped(most + u'b'), (most + u'b').toUtf8());
    QCOMPARE(escaped(most + QChar(0x0335) + u'b' + QChar(0x0335)), (most + u'b' + QChar(0x0335)).toUtf8());
}

QTEST_GUILESS_MAIN(tst_Html)
#include "tst_Html.moc"
