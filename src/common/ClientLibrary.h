// PostgreSQL's client library (libpq) beside Qt's driver: the functions that the driver does not offer, for
// the session that the driver has opened. Private to the session's own units.
//
// The library is not linked. Only the copy that the driver has loaded knows the driver's connection, so its
// functions are looked up in that copy at run time. Their types are those of libpq-fe.h, which has kept them
// for as long as the library is called libpq.so.5.
#pragma once

class QSqlDatabase;

namespace tarn::db {

/// PGconn and PGresult of libpq-fe.h. Nobody here looks into them.
using Connection = void;
using PgResult = void;

/// Values of libpq-fe.h's enumerations.
constexpr int kConnectionOk = 0;    ///< ConnStatusType CONNECTION_OK
constexpr int kCommandOk = 1;       ///< ExecStatusType PGRES_COMMAND_OK
constexpr int kTuplesOk = 2;        ///< ExecStatusType PGRES_TUPLES_OK
constexpr int kPipelineSync = 10;   ///< ExecStatusType PGRES_PIPELINE_SYNC
constexpr int kTransactionIdle = 0; ///< PGTransactionStatusType PQTRANS_IDLE
constexpr int kSqlStateField = 'C'; ///< PG_DIAG_SQLSTATE of postgres_ext.h

/// The functions in use, as libpq's manual describes them.
struct ClientLibrary
{
    int (*status)(const Connection*) = nullptr;

    /// All of the functions below are there. A library older than version 14 misses those of the pipeline.
    bool runsStatements = false;

    int (*transactionStatus)(const Connection*) = nullptr;
    char* (*errorMessage)(const Connection*) = nullptr;

    PgResult* (*exec)(Connection*, const char* statement) = nullptr;
    PgResult* (*prepare)(Connection*, const char* name, const char* statement, int count,
                         const unsigned* types) = nullptr;
    PgResult* (*execPrepared)(Connection*, const char* name, int count, const char* const* values,
                              const int* lengths, const int* formats, int resultFormat) = nullptr;

    int (*enterPipelineMode)(Connection*) = nullptr;
    int (*exitPipelineMode)(Connection*) = nullptr;
    int (*pipelineSync)(Connection*) = nullptr;
    int (*sendQueryPrepared)(Connection*, const char* name, int count, const char* const* values,
                             const int* lengths, const int* formats, int resultFormat) = nullptr;
    PgResult* (*getResult)(Connection*) = nullptr;

    int (*resultStatus)(const PgResult*) = nullptr;
    char* (*resultErrorMessage)(const PgResult*) = nullptr;
    char* (*resultErrorField)(const PgResult*, int field) = nullptr;
    int (*tupleCount)(const PgResult*) = nullptr;
    int (*isNull)(const PgResult*, int row, int column) = nullptr;
    char* (*value)(const PgResult*, int row, int column) = nullptr;
    int (*valueLength)(const PgResult*, int row, int column) = nullptr;
    void (*clear)(PgResult*) = nullptr;
};

/// The driver's copy of the library. Null when nothing has loaded libpq.so.5.
const ClientLibrary* clientLibrary();

/// The connection behind @p database. Null when the driver is no user of the library, or has none.
Connection* connectionOf(const QSqlDatabase& database);

} // namespace tarn::db
