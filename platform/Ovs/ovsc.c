/* The C layer over the Open vSwitch libraries; see ovsc.h. */

#include <config.h>

#include "ovsc.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "fatal-signal.h"
#include "jsonrpc.h"
#include "openvswitch/dynamic-string.h"
#include "openvswitch/json.h"
#include "openvswitch/shash.h"
#include "ovsdb-data.h"
#include "ovsdb-error.h"
#include "ovsdb-types.h"
#include "ovsdb/column.h"
#include "ovsdb/ovsdb.h"
#include "ovsdb/table.h"
#include "stream-provider.h"
#include "stream.h"
#include "openvswitch/vlog.h"
#include "openvswitch/poll-loop.h"
#include "timeval.h"
#include "util.h"
#include "uuid.h"

_Static_assert((int) OVSC_TYPE_VOID == (int) OVSDB_TYPE_VOID
               && (int) OVSC_TYPE_INTEGER == (int) OVSDB_TYPE_INTEGER
               && (int) OVSC_TYPE_REAL == (int) OVSDB_TYPE_REAL
               && (int) OVSC_TYPE_BOOLEAN == (int) OVSDB_TYPE_BOOLEAN
               && (int) OVSC_TYPE_STRING == (int) OVSDB_TYPE_STRING
               && (int) OVSC_TYPE_UUID == (int) OVSDB_TYPE_UUID,
               "enum ovsc_atomic_type mirrors enum ovsdb_atomic_type");
_Static_assert((int) OVSC_JSONRPC_REQUEST == (int) JSONRPC_REQUEST
               && (int) OVSC_JSONRPC_NOTIFY == (int) JSONRPC_NOTIFY
               && (int) OVSC_JSONRPC_REPLY == (int) JSONRPC_REPLY
               && (int) OVSC_JSONRPC_ERROR == (int) JSONRPC_ERROR,
               "enum ovsc_jsonrpc_msg_type mirrors enum jsonrpc_msg_type");
_Static_assert(OVSC_UUID_TEXT_SIZE == UUID_LEN + 1,
               "OVSC_UUID_TEXT_SIZE holds UUID_FMT and its terminator");

/* The first members of private structures of 3.1 that have lost their
 * accessors (see NOTES in ovsc.h).  Only the leading fields are mirrored,
 * and every read through them is checked before its result is used. */
struct ovsc_jsonrpc_head {
    struct stream *stream;      /* struct jsonrpc, lib/jsonrpc.c. */
};
struct ovsc_stream_fd_head {
    struct stream stream;       /* struct stream_fd, lib/stream-fd.c. */
    int fd;
};

struct ovsc_datum {
    struct ovsdb_datum datum;
    const struct ovsdb_type *type;  /* The column's, borrowed. */
};

static const struct ovsdb_column *
column_of(const struct ovsc_column *column)
{
    return (const struct ovsdb_column *) column;
}

static char *
error_text(struct ovsdb_error *error)
{
    return error ? ovsdb_error_to_string_free(error) : NULL;
}

/* Streams and JSON-RPC. */

int
ovsc_jsonrpc_stream_open_block(const char *name, uint8_t dscp,
                               long long int timeout_ms,
                               struct stream **streamp)
{
    int error = jsonrpc_stream_open(name, streamp, dscp);
    return stream_open_block(error, timeout_ms, streamp);
}

int
ovsc_jsonrpc_pstream_open(const char *name, uint8_t dscp,
                          struct pstream **pstreamp)
{
    return jsonrpc_pstream_open(name, pstreamp, dscp);
}

int
ovsc_pstream_accept_block(struct pstream *pstream, struct stream **streamp)
{
    return pstream_accept_block(pstream, streamp);
}

void
ovsc_pstream_close(struct pstream *pstream)
{
    pstream_close(pstream);
}

struct jsonrpc *
ovsc_jsonrpc_open(struct stream *stream)
{
    return jsonrpc_open(stream);
}

void
ovsc_jsonrpc_close(struct jsonrpc *rpc)
{
    jsonrpc_close(rpc);
}

int
ovsc_jsonrpc_send(struct jsonrpc *rpc, struct jsonrpc_msg *msg)
{
    return jsonrpc_send(rpc, msg);
}

int
ovsc_jsonrpc_send_block(struct jsonrpc *rpc, struct jsonrpc_msg *msg)
{
    return jsonrpc_send_block(rpc, msg);
}

int
ovsc_jsonrpc_recv(struct jsonrpc *rpc, struct jsonrpc_msg **msgp)
{
    return jsonrpc_recv(rpc, msgp);
}

void
ovsc_jsonrpc_run(struct jsonrpc *rpc)
{
    jsonrpc_run(rpc);
}

int
ovsc_jsonrpc_transact_block(struct jsonrpc *rpc, struct jsonrpc_msg *request,
                            struct jsonrpc_msg **replyp)
{
    return jsonrpc_transact_block(rpc, request, replyp);
}

const char *
ovsc_jsonrpc_get_name(const struct jsonrpc *rpc)
{
    return jsonrpc_get_name(rpc);
}

/* The absolute time, in time_msec(), at which a timeout runs out; -1 for
 * none. */
static long long int
deadline_after(long long int timeout_ms)
{
    return timeout_ms < 0 ? -1 : time_msec() + timeout_ms;
}

static bool
deadline_passed(long long int deadline)
{
    return deadline >= 0 && time_msec() >= deadline;
}

static void
block_until(long long int deadline)
{
    if (deadline >= 0) {
        poll_timer_wait_until(deadline);
    }
    poll_block();
}

int
ovsc_pstream_accept_timed(struct pstream *pstream, long long int timeout_ms,
                          struct stream **streamp)
{
    long long int deadline = deadline_after(timeout_ms);

    for (;;) {
        int error = pstream_accept(pstream, streamp);
        if (error != EAGAIN) {
            return error;
        }
        if (deadline_passed(deadline)) {
            *streamp = NULL;
            return ETIMEDOUT;
        }
        pstream_wait(pstream);
        block_until(deadline);
    }
}

/* Runs 'rpc' until its output is out, it fails or 'deadline' passes. */
static int
flush_until(struct jsonrpc *rpc, long long int deadline)
{
    for (;;) {
        jsonrpc_run(rpc);
        int error = jsonrpc_get_status(rpc);
        if (error || !jsonrpc_get_backlog(rpc)) {
            return error;
        }
        if (deadline_passed(deadline)) {
            return ETIMEDOUT;
        }
        jsonrpc_wait(rpc);
        block_until(deadline);
    }
}

int
ovsc_jsonrpc_send_timed(struct jsonrpc *rpc, struct jsonrpc_msg *msg,
                        long long int timeout_ms)
{
    long long int deadline = deadline_after(timeout_ms);
    int error = jsonrpc_send(rpc, msg);
    return error ? error : flush_until(rpc, deadline);
}

int
ovsc_jsonrpc_transact_timed(struct jsonrpc *rpc, struct jsonrpc_msg *request,
                            long long int timeout_ms,
                            struct jsonrpc_msg **replyp)
{
    long long int deadline = deadline_after(timeout_ms);
    struct json *id = json_clone(request->id);
    struct jsonrpc_msg *reply = NULL;
    int error = jsonrpc_send(rpc, request);

    if (!error) {
        error = flush_until(rpc, deadline);
    }
    while (!error) {
        error = jsonrpc_recv(rpc, &reply);
        if (error == EAGAIN) {
            error = deadline_passed(deadline) ? ETIMEDOUT : 0;
            if (!error) {
                jsonrpc_run(rpc);
                jsonrpc_wait(rpc);
                jsonrpc_recv_wait(rpc);
                block_until(deadline);
            }
            continue;
        }
        if (error) {
            break;
        }
        if ((reply->type == JSONRPC_REPLY || reply->type == JSONRPC_ERROR)
            && json_equal(id, reply->id)) {
            break;
        }
        /* Anything else on this connection (a notification, an echo) is
         * not what the caller waits for. */
        jsonrpc_msg_destroy(reply);
        reply = NULL;
    }
    json_destroy(id);
    *replyp = error ? NULL : reply;
    return error;
}

/* jsonrpc_open() names the connection after its stream, so a stream pointer
 * read from the wrong place would not carry the same name. */
struct stream *
ovsc_jsonrpc_get_stream(const struct jsonrpc *rpc)
{
    if (!rpc) {
        return NULL;
    }
    const struct ovsc_jsonrpc_head *head = (const void *) rpc;
    struct stream *stream = head->stream;
    if (!stream || strcmp(stream_get_name(stream), jsonrpc_get_name(rpc))) {
        return NULL;
    }
    return stream;
}

/* Unix and TCP streams are all of the "fd" class of lib/stream-fd.c. */
int
ovsc_stream_get_fd(const struct stream *stream)
{
    if (!stream || !stream->class || strcmp(stream->class->name, "fd")) {
        return -1;
    }
    const struct ovsc_stream_fd_head *head = (const void *) stream;
    return head->fd;
}

/* JSON-RPC messages. */

struct jsonrpc_msg *
ovsc_jsonrpc_create_request(const char *method, struct json *params,
                            struct json **idp)
{
    return jsonrpc_create_request(method, params, idp);
}

struct jsonrpc_msg *
ovsc_jsonrpc_create_reply(struct json *result, const struct json *id)
{
    return jsonrpc_create_reply(result, id);
}

void
ovsc_jsonrpc_msg_destroy(struct jsonrpc_msg *msg)
{
    jsonrpc_msg_destroy(msg);
}

enum ovsc_jsonrpc_msg_type
ovsc_jsonrpc_msg_type(const struct jsonrpc_msg *msg)
{
    return (enum ovsc_jsonrpc_msg_type) msg->type;
}

const char *
ovsc_jsonrpc_msg_method(const struct jsonrpc_msg *msg)
{
    return msg->method;
}

const struct json *
ovsc_jsonrpc_msg_params(const struct jsonrpc_msg *msg)
{
    return msg->params;
}

const struct json *
ovsc_jsonrpc_msg_result(const struct jsonrpc_msg *msg)
{
    return msg->result;
}

const struct json *
ovsc_jsonrpc_msg_error(const struct jsonrpc_msg *msg)
{
    return msg->error;
}

const struct json *
ovsc_jsonrpc_msg_id(const struct jsonrpc_msg *msg)
{
    return msg->id;
}

char *
ovsc_jsonrpc_msg_to_string(const struct jsonrpc_msg *msg)
{
    return jsonrpc_msg_to_string(msg);
}

/* Schemas. */

char *
ovsc_ovsdb_schema_from_json(const struct json *json,
                            struct ovsdb_schema **schemap)
{
    *schemap = NULL;
    return error_text(ovsdb_schema_from_json(json, schemap));
}

void
ovsc_ovsdb_schema_destroy(struct ovsdb_schema *schema)
{
    ovsdb_schema_destroy(schema);
}

const char *
ovsc_ovsdb_schema_name(const struct ovsdb_schema *schema)
{
    return schema->name;
}

const struct ovsdb_table_schema *
ovsc_ovsdb_schema_table(const struct ovsdb_schema *schema, const char *name)
{
    return shash_find_data(&schema->tables, name);
}

size_t
ovsc_ovsdb_schema_tables(const struct ovsdb_schema *schema,
                         const struct ovsdb_table_schema **tables,
                         size_t capacity)
{
    size_t n = shash_count(&schema->tables);
    if (capacity) {
        const struct shash_node **nodes = shash_sort(&schema->tables);
        for (size_t i = 0; i < n && i < capacity; i++) {
            tables[i] = nodes[i]->data;
        }
        free(nodes);
    }
    return n;
}

size_t
ovsc_ovsdb_table_schema_columns(const struct ovsdb_table_schema *table,
                                const struct ovsc_column **columns,
                                size_t capacity)
{
    size_t n = shash_count(&table->columns);
    if (capacity) {
        const struct shash_node **nodes = shash_sort(&table->columns);
        for (size_t i = 0; i < n && i < capacity; i++) {
            columns[i] = nodes[i]->data;
        }
        free(nodes);
    }
    return n;
}

const struct ovsc_column *
ovsc_ovsdb_table_schema_get_column(const struct ovsdb_table_schema *table,
                                   const char *name)
{
    return (const struct ovsc_column *)
        ovsdb_table_schema_get_column(table, name);
}

const char *
ovsc_column_name(const struct ovsc_column *column)
{
    return column_of(column)->name;
}

enum ovsc_atomic_type
ovsc_column_key_type(const struct ovsc_column *column)
{
    return (enum ovsc_atomic_type) column_of(column)->type.key.type;
}

enum ovsc_atomic_type
ovsc_column_value_type(const struct ovsc_column *column)
{
    return (enum ovsc_atomic_type) column_of(column)->type.value.type;
}

unsigned int
ovsc_column_n_max(const struct ovsc_column *column)
{
    return column_of(column)->type.n_max;
}

bool
ovsc_column_is_set(const struct ovsc_column *column)
{
    return ovsdb_type_is_set(&column_of(column)->type);
}

bool
ovsc_column_is_map(const struct ovsc_column *column)
{
    return ovsdb_type_is_map(&column_of(column)->type);
}

bool
ovsc_column_is_scalar(const struct ovsc_column *column)
{
    return ovsdb_type_is_scalar(&column_of(column)->type);
}

/* Datums. */

char *
ovsc_ovsdb_datum_from_json(const struct ovsc_column *column,
                           const struct json *json,
                           struct ovsc_datum **datump)
{
    if (!json) {
        *datump = NULL;
        return xstrdup("no JSON value to parse");
    }
    struct ovsc_datum *datum = xmalloc(sizeof *datum);
    datum->type = &column_of(column)->type;
    struct ovsdb_error *error = ovsdb_datum_from_json(&datum->datum,
                                                      datum->type, json,
                                                      NULL);
    if (error) {
        free(datum);
        *datump = NULL;
        return error_text(error);
    }
    *datump = datum;
    return NULL;
}

void
ovsc_datum_destroy(struct ovsc_datum *datum)
{
    if (datum) {
        ovsdb_datum_destroy(&datum->datum, datum->type);
        free(datum);
    }
}

unsigned int
ovsc_datum_count(const struct ovsc_datum *datum)
{
    return datum->datum.n;
}

/* The atom of element 'i' in 'role' when it exists and is of type 'type',
 * else NULL. */
static const union ovsdb_atom *
atom_of(const struct ovsc_datum *datum, enum ovsc_atom_role role,
        unsigned int i, enum ovsdb_atomic_type type)
{
    if (i >= datum->datum.n) {
        return NULL;
    }
    const struct ovsdb_base_type *base = (role == OVSC_KEY
                                          ? &datum->type->key
                                          : &datum->type->value);
    if (base->type != type || type == OVSDB_TYPE_VOID) {
        return NULL;
    }
    return role == OVSC_KEY ? &datum->datum.keys[i] : &datum->datum.values[i];
}

bool
ovsc_datum_integer(const struct ovsc_datum *datum, enum ovsc_atom_role role,
                   unsigned int i, int64_t *out)
{
    const union ovsdb_atom *atom = atom_of(datum, role, i,
                                           OVSDB_TYPE_INTEGER);
    if (atom) {
        *out = atom->integer;
    }
    return atom != NULL;
}

bool
ovsc_datum_boolean(const struct ovsc_datum *datum, enum ovsc_atom_role role,
                   unsigned int i, bool *out)
{
    const union ovsdb_atom *atom = atom_of(datum, role, i,
                                           OVSDB_TYPE_BOOLEAN);
    if (atom) {
        *out = atom->boolean;
    }
    return atom != NULL;
}

bool
ovsc_datum_string(const struct ovsc_datum *datum, enum ovsc_atom_role role,
                  unsigned int i, const char **out)
{
    const union ovsdb_atom *atom = atom_of(datum, role, i,
                                           OVSDB_TYPE_STRING);
    if (atom) {
        *out = json_string(atom->s);
    }
    return atom != NULL;
}

bool
ovsc_datum_uuid(const struct ovsc_datum *datum, enum ovsc_atom_role role,
                unsigned int i, struct uuid *out)
{
    const union ovsdb_atom *atom = atom_of(datum, role, i, OVSDB_TYPE_UUID);
    if (atom) {
        *out = atom->uuid;
    }
    return atom != NULL;
}

bool
ovsc_datum_uuid_text(const struct ovsc_datum *datum, enum ovsc_atom_role role,
                     unsigned int i, char out[OVSC_UUID_TEXT_SIZE])
{
    const union ovsdb_atom *atom = atom_of(datum, role, i, OVSDB_TYPE_UUID);
    if (atom) {
        snprintf(out, OVSC_UUID_TEXT_SIZE, UUID_FMT, UUID_ARGS(&atom->uuid));
    }
    return atom != NULL;
}

bool
ovsc_ovsdb_atom_is_default(const struct ovsc_datum *datum,
                           enum ovsc_atom_role role, unsigned int i)
{
    const struct ovsdb_base_type *base = (role == OVSC_KEY
                                          ? &datum->type->key
                                          : &datum->type->value);
    const union ovsdb_atom *atom = atom_of(datum, role, i, base->type);
    return atom && ovsdb_atom_is_default(atom, base->type);
}

char *
ovsc_ovsdb_datum_to_string(const struct ovsc_datum *datum)
{
    struct ds text = DS_EMPTY_INITIALIZER;
    ovsdb_datum_to_string(&datum->datum, datum->type, &text);
    return ds_steal_cstr(&text);
}

/* Miscellany. */

void
ovsc_uuid_init(void)
{
    uuid_init();
}

void
ovsc_uuid_generate(struct uuid *uuid)
{
    uuid_generate(uuid);
}

void
ovsc_fatal_signal_disable(void)
{
    /* The signals fatal_signal_init() takes over in 3.1. */
    static const int signals[] = { SIGTERM, SIGINT, SIGHUP, SIGALRM,
                                   SIGSEGV };
    struct sigaction before[ARRAY_SIZE(signals)];

    for (size_t i = 0; i < ARRAY_SIZE(signals); i++) {
        sigaction(signals[i], NULL, &before[i]);
        if (before[i].sa_handler == fatal_signal_handler) {
            before[i].sa_handler = SIG_DFL;
        }
    }
    fatal_signal_init();
    for (size_t i = 0; i < ARRAY_SIZE(signals); i++) {
        sigaction(signals[i], &before[i], NULL);
    }
}

void
ovsc_vlog_off(void)
{
    vlog_set_levels(NULL, VLF_ANY_DESTINATION, VLL_OFF);
}
