#include "report/Html.h"

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kZeroWidthNonJoiner = 0x200C;
constexpr char32_t kZeroWidthJoiner = 0x200D;

/// @p c, or U+FFFD in its place where it would act on its surroundings instead of being seen.
char32_t visible(char32_t c)
{
    if (c == U'\n' || c == U'\t' || c == kZeroWidthNonJoiner || c == kZeroWidthJoiner)
        return c;
    switch (QChar::category(c)) {
    case QChar::Other_Control:
    case QChar::Other_Format:
    case QChar::Other_Surrogate:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return kReplacement;
    default:
        return c;
    }
}

bool isMark(char32_t c)
{
    const QChar::Category category = QChar::category(c);
    return category == QChar::Mark_NonSpacing || category == QChar::Mark_Enclosing
           || category == QChar::Mark_SpacingCombining;
}

void appendCharacter(QByteArray& out, char32_t c)
{
    switch (c) {
    case U'&':
        out += "&amp;";
        return;
    case U'<':
        out += "&lt;";
        return;
    case U'>':
        out += "&gt;";
        return;
    case U'"':
        out += "&quot;";
        return;
    case U'\'':
        out += "&#39;";
        return;
    default:
        break;
    }
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else {
        out += QString::fromUcs4(&c, 1).toUtf8();
    }
}

} // namespace

QByteArray escaped(QStringView text)
{
    QByteArray out;
    out.reserve(text.size() + text.size() / 8);
    int marks = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        char32_t c = text.at(i).unicode();
        if (text.at(i).isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
            c = QChar::surrogateToUcs4(text.at(i), text.at(i + 1));
            ++i;
        }
        marks = isMark(c) ? marks + 1 : 0;
        if (marks <= kMarksInARow)
            appendCharacter(out, visible(c));
    }
    return out;
}

QString shortened(const QString& text, qsizetype characters)
{
    if (text.size() <= characters)
        return text;
    const bool inside = text.at(characters).isLowSurrogate() && text.at(characters - 1).isHighSurrogate();
    return text.first(inside ? characters - 1 : characters) + u'…';
}

Html::Element::~Element()
{
    m_html.append("</");
    m_html.append(m_name.text());
    m_html.append(">");
}

void Html::append(std::string_view text)
{
    m_bytes.append(text.data(), static_cast<qsizetype>(text.size()));
}

void Html::start(Name name, Attributes attributes)
{
    append("<");
    append(name.text());
    for (const Attribute& attribute : attributes) {
        append(" ");
        append(attribute.name.text());
        append("=\"");
        m_bytes += escaped(attribute.value);
        append("\"");
    }
}

Html::Element Html::element(Name name, Attributes attributes)
{
    start(name, attributes);
    append(">");
    return {*this, name};
}

Html::Element Html::element(Name name, CssClass cssClass)
{
    return element(name, {
                             {"class", cssClass.text()}
    });
}

void Html::leaf(Name name, QStringView content, Attributes attributes)
{
    const Element whole = element(name, attributes);
    text(content);
}

void Html::leaf(Name name, QStringView content, CssClass cssClass)
{
    const Element whole = element(name, cssClass);
    text(content);
}

void Html::lone(Name name, Attributes attributes)
{
    start(name, attributes);
    append("/>");
}

void Html::text(QStringView text)
{
    m_bytes += escaped(text);
}

void Html::foreign(const QString& text)
{
    const QString shown = shortened(text, kShownCharacters);
    if (shown == text) {
        leaf("bdi", text);
    } else {
        leaf("bdi", shown,
             {
                 {"title", shortened(text, kTitleCharacters)}
        });
    }
}

void Html::styleSheet(std::string_view constant)
{
    const Element style = element("style");
    append(constant);
}

void Html::documentType()
{
    append("<!DOCTYPE html>");
}

} // namespace tarn::report
