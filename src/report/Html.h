// Writes HTML (and the SVG in it). Markup comes from names that are fixed when the program is compiled;
// whatever is known only at run time goes through escaped(). Hence a stranger's path or search term cannot
// become an element, an attribute or a script. Elements close themselves.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringView>

#include <initializer_list>
#include <string_view>

namespace tarn::report {

/// The name of an element or an attribute: a literal of letters, digits and hyphens, checked by the compiler.
class Name
{
public:
    template <std::size_t Size>
    consteval Name(const char (&literal)[Size]) // NOLINT(google-explicit-constructor): stands for the literal
        : m_text(literal, Size - 1)
    {
        for (const char c : m_text) {
            if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-'))
                throw "an element's or attribute's name is made of letters, digits and hyphens";
        }
    }
    std::string_view text() const { return m_text; }

private:
    std::string_view m_text;
};

struct Attribute
{
    Name name;
    QString value;
};
using Attributes = std::initializer_list<Attribute>;

/// What the attribute `class` says: a literal with one class of the style sheet, or several with spaces
/// between.
class CssClass
{
public:
    template <std::size_t Size>
    consteval CssClass(
        const char (&literal)[Size]) // NOLINT(google-explicit-constructor): stands for the literal
        : m_text(literal, Size - 1)
    {
    }
    QString text() const { return QString::fromLatin1(m_text.data(), static_cast<qsizetype>(m_text.size())); }

private:
    std::string_view m_text;
};

/// Characters of a stranger's text that are shown; what is longer is cut, and told in full by the title.
inline constexpr qsizetype kShownCharacters = 80;
/// Characters of it that the title holds.
inline constexpr qsizetype kTitleCharacters = 400;

/// Combining marks on one letter; more are left out. No language needs more, a tower of them covers the lines
/// around it, and no browser breaks a line inside it.
inline constexpr int kMarksInARow = 6;

/// @p text as the content of an element or of a quoted attribute, in UTF-8. Control characters, those that
/// turn the direction of the text around them, other invisible formatting and unpaired surrogates become
/// U+FFFD; line feeds and tabs stay, as do the joiners that scripts and emoji need.
QByteArray escaped(QStringView text);

/// The first @p characters of @p text with an ellipsis behind, or all of it if it is no longer than that.
/// Never cuts a character in two.
QString shortened(const QString& text, qsizetype characters);

class Html
{
public:
    /// An element that is open for as long as this object lives.
    class Element
    {
    public:
        Element(Html& html, Name name)
            : m_html(html)
            , m_name(name)
        {
        }
        ~Element();
        Element(const Element&) = delete;
        Element& operator=(const Element&) = delete;

    private:
        Html& m_html;
        Name m_name;
    };

    [[nodiscard]] Element element(Name name, Attributes attributes = {});
    [[nodiscard]] Element element(Name name, CssClass cssClass);
    /// An element with nothing but @p text in it.
    void leaf(Name name, QStringView text, Attributes attributes = {});
    void leaf(Name name, QStringView text, CssClass cssClass);
    /// An element without content: as HTML's void elements are written, closed at once.
    void lone(Name name, Attributes attributes = {});
    void text(QStringView text);
    /// What somebody else chose (a path, a host, a search term, an agent): isolated, so that its direction
    /// does not reach the text around it, and cut at kShownCharacters.
    void foreign(const QString& text);
    /// The style sheet of the page, which is a constant of this program and stands unescaped.
    void styleSheet(std::string_view constant);

    /// What has been written, beginning with the document type if that was wanted.
    const QByteArray& bytes() const { return m_bytes; }
    void documentType();

private:
    void start(Name name, Attributes attributes);
    void append(std::string_view text);

    QByteArray m_bytes;
};

} // namespace tarn::report
