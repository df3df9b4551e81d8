/* ovsc: the C layer between vgw and the Open vSwitch libraries.
 *
 * The JSON-RPC client, the stream layer, and the OVSDB schema and datum code
 * of libopenvswitch and libovsdb are declared in internal headers that do not
 * compile as C++.  This header declares thin C wrappers for the parts vgw
 * uses, each named "ovsc_" followed by the function it wraps, and compiles
 * cleanly as C and as C++.  The wrappers add no policy: they forward, and
 * where the libraries would abort on a bad argument (reading a map value out
 * of a set, an index past the end) they report the problem instead.  The
 * public OVS headers (openvswitch/json.h, shash.h, dynamic-string.h, uuid.h)
 * are used directly alongside this one.
 *
 * Ownership follows the libraries:
 *   - Functions that take a "struct json *" or "struct jsonrpc_msg *" that is
 *     not const take ownership of it, including on failure.
 *   - Functions that return a non-const pointer hand ownership to the caller:
 *     free "char *" with free(), "struct json *" with json_destroy(), messages
 *     with ovsc_jsonrpc_msg_destroy(), schemas with
 *     ovsc_ovsdb_schema_destroy(), datums with ovsc_datum_destroy().
 *   - Const pointers returned by accessors are borrowed from the object they
 *     were read from and live as long as it does.  A table schema and its
 *     columns live as long as their schema; a datum refers to its column's
 *     type and must not outlive the schema either.
 *   - Error texts are returned as owned "char *", NULL meaning success.
 *
 * Everything here runs on the caller's thread; the blocking calls
 * (ovsc_jsonrpc_stream_open_block, ovsc_pstream_accept_block,
 * ovsc_jsonrpc_send_block, ovsc_jsonrpc_transact_block) block it.
 *
 * NOTES: differences from the 2.8 series of the libraries met here.
 *   - fatal_signal_disable() is gone.  In 3.1 the first stream or poll-loop
 *     call runs fatal_signal_init(), which installs OVS's own handlers for
 *     SIGTERM, SIGINT, SIGHUP, SIGALRM and SIGSEGV wherever the disposition
 *     is SIG_DFL.  ovsc_fatal_signal_disable() runs that initialization once
 *     and puts back the dispositions that were in force before it, so the
 *     process keeps its own signal handling.
 *   - stream_open_block() takes a timeout in milliseconds; a negative one
 *     waits without limit, which is what 2.8 always did.
 *   - jsonrpc_get_stream() and stream_get_fd() are gone.
 *     ovsc_jsonrpc_get_stream() and ovsc_stream_get_fd() read the two
 *     private fields through mirrors of their 3.1 layouts, checked at run
 *     time (the stream carries the connection's name; the stream is of the
 *     file-descriptor class), and return NULL or -1 when the check fails.
 *   - String atoms are reference-counted JSON strings, not "char *";
 *     ovsc_datum_string() hands out their text.
 *   - The internal headers use C++ keywords as identifiers ("mutable" in the
 *     schema structures), which is why this layer exists at all.
 */
#ifndef VGW_OVSC_H
#define VGW_OVSC_H 1

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "openvswitch/uuid.h"

#ifdef __cplusplus
extern "C" {
#endif

struct json;
struct jsonrpc;
struct jsonrpc_msg;
struct stream;
struct pstream;
struct ovsdb_schema;
struct ovsdb_table_schema;

/* A column of a table schema.  Borrowed from its schema. */
struct ovsc_column;

/* A datum parsed against a column's type.  Owned by whoever parsed it. */
struct ovsc_datum;

/* Mirrors enum ovsdb_atomic_type. */
enum ovsc_atomic_type {
    OVSC_TYPE_VOID,
    OVSC_TYPE_INTEGER,
    OVSC_TYPE_REAL,
    OVSC_TYPE_BOOLEAN,
    OVSC_TYPE_STRING,
    OVSC_TYPE_UUID
};

/* Mirrors enum jsonrpc_msg_type. */
enum ovsc_jsonrpc_msg_type {
    OVSC_JSONRPC_REQUEST,
    OVSC_JSONRPC_NOTIFY,
    OVSC_JSONRPC_REPLY,
    OVSC_JSONRPC_ERROR
};

/* Which atom of a datum's i-th element is meant: the key, or the value of a
 * map. */
enum ovsc_atom_role {
    OVSC_KEY,
    OVSC_VALUE
};

/* Size of the buffer for the "%08x-%04x-%04x-%04x-%04x%08x" text of a uuid,
 * terminating null included. */
#define OVSC_UUID_TEXT_SIZE 37

/* Streams and JSON-RPC.  Functions returning int return 0 or a positive
 * errno value (EOF for a closed peer where the libraries say so). */

/* jsonrpc_stream_open() then stream_open_block(): connects to 'name' (such
 * as "unix:/path") and stores the connected stream in '*streamp', or NULL on
 * failure.  A passive name ("punix:...") gives EAFNOSUPPORT.  'timeout_ms'
 * bounds the wait for the connection; a negative value waits without
 * limit. */
int ovsc_jsonrpc_stream_open_block(const char *name, uint8_t dscp,
                                   long long int timeout_ms,
                                   struct stream **streamp);

/* jsonrpc_pstream_open(): listens on a passive name such as "punix:/path". */
int ovsc_jsonrpc_pstream_open(const char *name, uint8_t dscp,
                              struct pstream **pstreamp);

/* pstream_accept_block(): waits for one peer and stores its stream, owned by
 * the caller, in '*streamp' (NULL on failure). */
int ovsc_pstream_accept_block(struct pstream *, struct stream **streamp);

/* pstream_close(): stops listening.  NULL is accepted. */
void ovsc_pstream_close(struct pstream *);

/* jsonrpc_open(): takes ownership of 'stream'. */
struct jsonrpc *ovsc_jsonrpc_open(struct stream *stream);

/* jsonrpc_close(): closes the connection and its stream.  NULL is
 * accepted. */
void ovsc_jsonrpc_close(struct jsonrpc *);

/* jsonrpc_send(): queues 'msg' (taking ownership) and sends what the socket
 * takes without blocking; the rest goes out in ovsc_jsonrpc_run(). */
int ovsc_jsonrpc_send(struct jsonrpc *, struct jsonrpc_msg *msg);

/* jsonrpc_send_block(): like ovsc_jsonrpc_send() but waits until all of it
 * has been written. */
int ovsc_jsonrpc_send_block(struct jsonrpc *, struct jsonrpc_msg *msg);

/* jsonrpc_recv(): stores one complete received message, owned by the caller,
 * in '*msgp' and returns 0; returns EAGAIN when no whole message is there
 * yet, or another error (EOF included) when the connection has failed.  Does
 * not block. */
int ovsc_jsonrpc_recv(struct jsonrpc *, struct jsonrpc_msg **msgp);

/* jsonrpc_run(): moves queued output onto the socket. */
void ovsc_jsonrpc_run(struct jsonrpc *);

/* Timed forms of the blocking calls: each gives up with ETIMEDOUT once
 * 'timeout_ms' milliseconds have passed (a negative timeout waits without
 * limit), so that a peer that stops answering cannot hold the caller longer.
 * They wait in the libraries' poll loop as the blocking calls do. */
int ovsc_pstream_accept_timed(struct pstream *, long long int timeout_ms,
                              struct stream **streamp);
int ovsc_jsonrpc_send_timed(struct jsonrpc *, struct jsonrpc_msg *msg,
                            long long int timeout_ms);
int ovsc_jsonrpc_transact_timed(struct jsonrpc *, struct jsonrpc_msg *request,
                                long long int timeout_ms,
                                struct jsonrpc_msg **replyp);

/* jsonrpc_transact_block(): sends 'request' (taking ownership) and waits for
 * the reply or error with its id, stored in '*replyp' and owned by the
 * caller.  Messages with other ids that arrive meanwhile are dropped. */
int ovsc_jsonrpc_transact_block(struct jsonrpc *, struct jsonrpc_msg *request,
                                struct jsonrpc_msg **replyp);

/* jsonrpc_get_name(): the connection's name, its target ("unix:/path"),
 * borrowed from the connection. */
const char *ovsc_jsonrpc_get_name(const struct jsonrpc *);

/* The stream under a connection, borrowed from it; NULL when it cannot be
 * read (see NOTES). */
struct stream *ovsc_jsonrpc_get_stream(const struct jsonrpc *);

/* The file descriptor of a socket stream, for readiness polling only (it
 * stays owned by the stream); -1 for a stream that has none. */
int ovsc_stream_get_fd(const struct stream *);

/* JSON-RPC messages. */

/* jsonrpc_create_request(): a request with a fresh id, taking ownership of
 * 'params' (a JSON array).  When 'idp' is nonnull it receives a reference to
 * the id, owned by the caller. */
struct jsonrpc_msg *ovsc_jsonrpc_create_request(const char *method,
                                                struct json *params,
                                                struct json **idp);

/* jsonrpc_create_reply(): a reply carrying 'result' (taken over) for the
 * request whose id is 'id' (copied). */
struct jsonrpc_msg *ovsc_jsonrpc_create_reply(struct json *result,
                                              const struct json *id);

/* jsonrpc_msg_destroy().  NULL is accepted. */
void ovsc_jsonrpc_msg_destroy(struct jsonrpc_msg *);

/* Fields of a message.  The method is NULL unless the message is a request
 * or a notification, and each JSON member is NULL where the message type has
 * none. */
enum ovsc_jsonrpc_msg_type ovsc_jsonrpc_msg_type(const struct jsonrpc_msg *);
const char *ovsc_jsonrpc_msg_method(const struct jsonrpc_msg *);
const struct json *ovsc_jsonrpc_msg_params(const struct jsonrpc_msg *);
const struct json *ovsc_jsonrpc_msg_result(const struct jsonrpc_msg *);
const struct json *ovsc_jsonrpc_msg_error(const struct jsonrpc_msg *);
const struct json *ovsc_jsonrpc_msg_id(const struct jsonrpc_msg *);

/* jsonrpc_msg_to_string(): the message in one line, for traces. */
char *ovsc_jsonrpc_msg_to_string(const struct jsonrpc_msg *);

/* Schemas. */

/* ovsdb_schema_from_json(): parses a schema as "get_schema" returns it.
 * Returns NULL and stores the schema in '*schemap', or returns the error
 * text and stores NULL. */
char *ovsc_ovsdb_schema_from_json(const struct json *,
                                  struct ovsdb_schema **schemap);

/* ovsdb_schema_destroy().  NULL is accepted. */
void ovsc_ovsdb_schema_destroy(struct ovsdb_schema *);

const char *ovsc_ovsdb_schema_name(const struct ovsdb_schema *);

/* The table named 'name', or NULL when the schema has none. */
const struct ovsdb_table_schema *ovsc_ovsdb_schema_table(
    const struct ovsdb_schema *, const char *name);

/* Stores up to 'capacity' tables, sorted by name, in 'tables' and returns
 * how many the schema has; call with a capacity of 0 to learn the count. */
size_t ovsc_ovsdb_schema_tables(const struct ovsdb_schema *,
                                const struct ovsdb_table_schema **tables,
                                size_t capacity);

/* Stores up to 'capacity' columns, sorted by name (the order shash_sort()
 * gives), in 'columns' and returns how many the table has.  The "_uuid" and
 * "_version" columns of every table are among them. */
size_t ovsc_ovsdb_table_schema_columns(const struct ovsdb_table_schema *,
                                       const struct ovsc_column **columns,
                                       size_t capacity);

/* ovsdb_table_schema_get_column(): the column named 'name', or NULL. */
const struct ovsc_column *ovsc_ovsdb_table_schema_get_column(
    const struct ovsdb_table_schema *, const char *name);

/* A column's name and type.  The value type is OVSC_TYPE_VOID unless the
 * column is a map.  An unlimited n_max is UINT_MAX. */
const char *ovsc_column_name(const struct ovsc_column *);
enum ovsc_atomic_type ovsc_column_key_type(const struct ovsc_column *);
enum ovsc_atomic_type ovsc_column_value_type(const struct ovsc_column *);
unsigned int ovsc_column_n_max(const struct ovsc_column *);
bool ovsc_column_is_set(const struct ovsc_column *);
bool ovsc_column_is_map(const struct ovsc_column *);
bool ovsc_column_is_scalar(const struct ovsc_column *);

/* Datums. */

/* ovsdb_datum_from_json(): parses 'json' as a value of 'column': an atom,
 * ["set", [...]], ["map", [[k, v], ...]] or, for a set, the bare form of a
 * single element.  Named uuids are refused.  Returns NULL and stores the
 * datum in '*datump', or returns the error text and stores NULL. */
char *ovsc_ovsdb_datum_from_json(const struct ovsc_column *column,
                                 const struct json *json,
                                 struct ovsc_datum **datump);

/* ovsdb_datum_destroy().  NULL is accepted. */
void ovsc_datum_destroy(struct ovsc_datum *);

/* Number of elements (keys, or key-value pairs), in the sorted order OVSDB
 * keeps them. */
unsigned int ovsc_datum_count(const struct ovsc_datum *);

/* The atom of element 'i' in 'role', read as the named type.  Each returns
 * false, leaving '*out' alone, when 'i' is out of range or the atom has
 * another type (OVSC_VALUE of a set included).  A string stays owned by the
 * datum. */
bool ovsc_datum_integer(const struct ovsc_datum *, enum ovsc_atom_role,
                        unsigned int i, int64_t *out);
bool ovsc_datum_boolean(const struct ovsc_datum *, enum ovsc_atom_role,
                        unsigned int i, bool *out);
bool ovsc_datum_string(const struct ovsc_datum *, enum ovsc_atom_role,
                       unsigned int i, const char **out);
bool ovsc_datum_uuid(const struct ovsc_datum *, enum ovsc_atom_role,
                     unsigned int i, struct uuid *out);
/* The uuid as "%08x-%04x-%04x-%04x-%04x%08x" text into 'out'. */
bool ovsc_datum_uuid_text(const struct ovsc_datum *, enum ovsc_atom_role,
                          unsigned int i, char out[OVSC_UUID_TEXT_SIZE]);

/* ovsdb_atom_is_default(): whether the atom is its type's default (0, 0.0,
 * false, "", the all-zero uuid).  False when there is no such atom. */
bool ovsc_ovsdb_atom_is_default(const struct ovsc_datum *,
                                enum ovsc_atom_role, unsigned int i);

/* ovsdb_datum_to_string(): the datum in the syntax of ovs-vsctl and
 * vtep-ctl (strings quoted only where needed, sets in brackets, maps in
 * braces). */
char *ovsc_ovsdb_datum_to_string(const struct ovsc_datum *);

/* Miscellany. */

/* uuid_init(): seeds the generator; uuid_generate() does it on first use. */
void ovsc_uuid_init(void);

/* uuid_generate(): a random (version 4) uuid. */
void ovsc_uuid_generate(struct uuid *);

/* See NOTES.  Call once at start-up, before any stream is opened, or later:
 * handlers OVS has already installed are reset to SIG_DFL. */
void ovsc_fatal_signal_disable(void);

/* vlog_set_levels(NULL, VLF_ANY_DESTINATION, VLL_OFF): silences the
 * libraries' own log, every module on every destination.  Their blocking
 * calls otherwise warn of an "unreasonably long poll interval" with a
 * coverage dump each time the caller's own loop has run in between, and
 * report connection trouble the caller reports in its own words. */
void ovsc_vlog_off(void);

#ifdef __cplusplus
}
#endif

#endif /* ovsc.h */
