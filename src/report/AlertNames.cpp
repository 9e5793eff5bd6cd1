#include "report/AlertNames.h"

#include <QMap>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

QString alertName(const QString& kind)
{
    static const QMap<QString, QString> names = {
        {u"memory"_s,      u"Memory"_s     },
        {u"apache"_s,      u"Apache"_s     },
        {u"load"_s,        u"Load"_s       },
        {u"temperature"_s, u"Temperature"_s},
        {u"disk"_s,        u"Disk"_s       },
        {u"service"_s,     u"Service"_s    },
        {u"quota"_s,       u"Disk limit"_s },
        {u"dbquota"_s,     u"Database"_s   },
    };
    return names.value(kind, kind);
}

QString shortAlertName(const QString& kind)
{
    static const QMap<QString, QString> names = {
        {u"temperature"_s, u"Temp."_s},
        {u"quota"_s,       u"Quota"_s},
        {u"dbquota"_s,     u"DB"_s   },
    };
    return names.value(kind, alertName(kind));
}

} // namespace tarn::report
