#include "common/ClientLibrary.h"

#include <QByteArrayView>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QVariant>

#include <dlfcn.h>

#include <optional>

namespace tarn::db {

namespace {

template <typename Function>
bool find(void* library, const char* name, Function& function)
{
    function = reinterpret_cast<Function>(dlsym(library, name));
    return function != nullptr;
}

std::optional<ClientLibrary> load()
{
    void* const library = dlopen("libpq.so.5", RTLD_NOW | RTLD_NOLOAD);
    ClientLibrary found;
    if (!library || !find(library, "PQstatus", found.status))
        return std::nullopt;
    found.runsStatements =
        find(library, "PQtransactionStatus", found.transactionStatus)
        && find(library, "PQerrorMessage", found.errorMessage) && find(library, "PQexec", found.exec)
        && find(library, "PQprepare", found.prepare) && find(library, "PQexecPrepared", found.execPrepared)
        && find(library, "PQenterPipelineMode", found.enterPipelineMode)
        && find(library, "PQexitPipelineMode", found.exitPipelineMode)
        && find(library, "PQpipelineSync", found.pipelineSync)
        && find(library, "PQsendQueryPrepared", found.sendQueryPrepared)
        && find(library, "PQgetResult", found.getResult)
        && find(library, "PQresultStatus", found.resultStatus)
        && find(library, "PQresultErrorMessage", found.resultErrorMessage)
        && find(library, "PQresultErrorField", found.resultErrorField)
        && find(library, "PQntuples", found.tupleCount) && find(library, "PQgetisnull", found.isNull)
        && find(library, "PQgetvalue", found.value) && find(library, "PQgetlength", found.valueLength)
        && find(library, "PQclear", found.clear);
    return found;
}

} // namespace

const ClientLibrary* clientLibrary()
{
    static const std::optional<ClientLibrary> library = load();
    return library ? &*library : nullptr;
}

Connection* connectionOf(const QSqlDatabase& database)
{
    const QVariant handle = database.driver()->handle();
    // PGconn is a typedef of struct pg_conn. How Qt was built decides which name is reported.
    const QByteArrayView type(handle.typeName());
    if (type != "PGconn*" && type != "pg_conn*")
        return nullptr;
    return *static_cast<void* const*>(handle.constData());
}

} // namespace tarn::db
