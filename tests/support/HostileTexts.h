// Texts of a given length that have cost parsers more than their length: marks to sort, labels to encode,
// items to split, escapes to resolve. For the tests and for the bench of time against size.
#pragma once

#include <QByteArray>
#include <QList>

namespace tarn::tests {

/// How many times the cost of plain text of the same length such a text may cost. What these tests have found
/// were hundreds. Without the optimiser, as under the sanitizers, a loop of ours costs many times what the
/// same loop in a library does.
#ifdef __OPTIMIZE__
inline constexpr double kMostTimes = 10;
#else
inline constexpr double kMostTimes = 60;
#endif

struct Shape
{
    const char* name;
    QByteArray unit; ///< repeated
};

/// What can stand anywhere in a line.
inline const QList<Shape>& hostileShapes()
{
    static const QList<Shape> shapes = {
        {"marks",            "\xcc\x81\xcc\xa3" },
        {"marks-escaped",    "%CC%81%CC%A3"     },
        {"letter-and-marks", "a\xcc\x81\xcc\xa3"},
        {"labels-u",         "\xc3\xbc."        },
        {"umlauts",          "\xc3\xbc"         },
        {"expanding",        "\xef\xb7\xba"     },
        {"xn",               "xn--mller-kva."   },
        {"xn-run",           "xn--99zzz99zzz."  },
        {"dots",             "."                },
        {"labels-a",         "a."               },
        {"items",            "a&"               },
        {"items-empty",      "&"                },
        {"items-escaped",    "%75tm_sourc&"     },
        {"items-nearly",     "utm_sourcf=1&"    },
        {"escapes",          "%41"              },
        {"escapes-invalid",  "%FF"              },
        {"percent-signs",    "%"                },
        {"digits",           "7"                },
        {"zeros",            "0"                },
        {"bytes-ff",         "\xff"             },
        {"bytes-c3",         "\xc3"             },
        {"four-bytes",       "\xf0\x9f\x91\x9f" },
        {"spaces",           " "                },
        {"words",            "a "               },
        {"backslashes",      "\\a"              },
        {"slashes",          "/"                },
        {"at-signs",         "@"                },
        {"colons",           ":"                },
        {"brackets",         "["                },
        {"nuls",             QByteArray(1,        '\0')},
        {"bots-nearly",                  "botx"                        },
        {"tokens-nearly",                  "googlebo"},
        {"words-nearly",                  "crawscannespidepreviefetchescrap"                         },
        {"capitals",                  "\xc4\xb0"  },
    };
    return shapes;
}

/// What else can stand in a text of several lines.
inline const QList<Shape>& hostileLines()
{
    static const QList<Shape> shapes = {
        {"line-feeds",        "\n"                                          },
        {"lines",             "x\n"                                         },
        {"lines-of-bytes-ff", "\xff\n"                                      },
        {"lines-of-blanks",   " \n"                                         },
        {"lines-with-colon",  ":\n"                                         },
        {"apache",            "Total Accesses: 7\n"                         },
        {"interfaces",        "a: 1 2 3 4 5 6 7 8 9\n"                      },
        {"disks",             " 8 0 sda 1 2 3 4 5 6 7 8\n"                  },
        {"blocks",            "SubState=s\n\n"                              },
        {"states",            "SubState=s\n"                                },
        {"times",             "ActiveEnterTimestamp=a 2024-10-12 13:55:36\n"},
        {"memory",            "MemoryCurrent=7\n"                           },
        {"mounts",            "1 0 8:0 / /a rw - a b c\n"                   },
    };
    return shapes;
}

/// @p size bytes of @p unit, again and again.
inline QByteArray textOf(const QByteArray& unit, qsizetype size)
{
    return unit.repeated(size / unit.size() + 1).left(size);
}

} // namespace tarn::tests
