#ifndef PUSHCHAT_PUSHCHAT_C_H
#define PUSHCHAT_PUSHCHAT_C_H

/** \file
 * The C interface of pushchat: JSON requests in, JSON events out.
 *
 * For programs in C and for other languages' bindings (the Python package
 * `pushchat` is ctypes over this header). C99; no C++ or Qt here.
 *
 * \code
 * char error[256];
 * pushchat_client *c = pushchat_client_new(
 *     "{\"user\":\"alice\",\"domain\":\"im\",\"brokers\":[\"127.0.0.1:1883\"]}", error, sizeof error);
 * pushchat_send(c, "{\"op\":\"login\",\"id\":1}");
 * for (const char *event; (event = pushchat_receive(c, 1000)) != NULL;)
 *     puts(event);                        // {"event":"onConnected"} ...
 * pushchat_client_free(c);
 * \endcode
 *
 * Requests: one JSON object per operation of the façade (Message_lib),
 * {"op": name, "id": any string or number the caller chooses, arguments by
 * name}; docs/c-api.md lists them. Each request's outcome arrives as one
 * event carrying its id: {"event":"result","id":..,"op":..,"result":..}, or
 * {"event":"error","id":..,"op":..,"error": what is wrong}.
 *
 * Events: one JSON object per callback of the callback interfaces,
 * {"event": callback name, argument name: value, ...}, such as
 * {"event":"onMessageReceive","from":"bob@im","to":"alice@im","body":"hi",...};
 * onDisconnected carries the connection error ("error", "errorText").
 *
 * Threads: pushchat_send from any thread; pushchat_receive from one thread
 * at a time. In a process without a Qt application object the library runs
 * one of its own on a thread it starts with the first client and ends with
 * the last one; in a Qt application it uses the application's (create that
 * before the first client).
 *
 * Ownership: the client is the caller's, from pushchat_client_new to
 * pushchat_client_free. Every text the library returns is the library's:
 * an event's text stays valid until the next pushchat_receive on that
 * client (or its free); the version text for ever. Texts passed in are
 * read during the call only.
 *
 * The event queue is bounded (configuration "queue_size", 10000 by
 * default). When the application does not drain it, the library's threads
 * wait for room, so incoming traffic stays with the broker and nothing is
 * lost, and pushchat_send refuses new requests (PUSHCHAT_ERROR_FULL). A
 * login, a logout, a close and a free never wait for room: what they
 * deliver is queued past the bound.
 */

#include <pushchat/pushchat_export.h>

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A client: one user's connection, its requests and its events. */
typedef struct pushchat_client pushchat_client;

/** What pushchat_send returns. */
enum pushchat_status {
    PUSHCHAT_OK = 0,             /**< accepted: its result or error event follows */
    PUSHCHAT_ERROR_REQUEST = -1, /**< malformed: an error event names what is wrong */
    PUSHCHAT_ERROR_CLOSED = -2,  /**< the client is closed: nothing done, no event */
    PUSHCHAT_ERROR_FULL = -3,    /**< the event queue is full: nothing done, no event */
    PUSHCHAT_ERROR_ARGUMENT = -4 /**< a null client or request */
};

/** The library's version, such as "0.1.0". */
PUSHCHAT_EXPORT const char *pushchat_version(void);

/** A new client from a JSON configuration (UTF-8):
 *   "user" (required), "domain" (default: the first broker's host),
 *   "level" (the user's security level, 0), "device" and "device_name"
 *   (as for Message_lib; an empty device id is kept in the settings),
 *   "brokers" (["host:port", ...], the first for the login, the others to
 *   fail over to; default ["127.0.0.1:1883"]), "tls" (false, true, or
 *   {"ca_file","ca_path","cert_file","key_file","insecure"}),
 *   "username", "password", "max_qos" (1 or 2), "server_jid",
 *   "history_base", "history_deadline_ms", "store" (a message store file,
 *   opened now), "store_sync" (true), "queue_size" (10000), and the
 *   outbox's bounds "max_pending_messages" (1000) and "max_pending_bytes"
 *   (16 MiB): a chat sent while they are reached gives the result 0.
 * No connection is made ("login" does that). NULL when the configuration
 * is unusable or the store cannot be opened; then `error` (when not NULL)
 * holds why, cut to `error_size` bytes with its NUL. */
PUSHCHAT_EXPORT pushchat_client *pushchat_client_new(const char *config, char *error, size_t error_size);

/** Hands one JSON request to the client; any thread. Most operations run
 * during the call; history over HTTP runs on the client's own thread. The
 * request text is not kept. */
PUSHCHAT_EXPORT int pushchat_send(pushchat_client *client, const char *request);

/** The next event as JSON text (UTF-8), waiting at most `timeout_ms`
 * milliseconds (negative: until one comes). NULL when none came in time,
 * or when the client is closed or freed meanwhile. The text stays valid
 * until the next call on this client. */
PUSHCHAT_EXPORT const char *pushchat_receive(pushchat_client *client, int timeout_ms);

/** A descriptor that is readable while an event waits (and once the client
 * is closed), for poll, select and event loops. Only for waiting: do not
 * read it or close it. -1 for a null client. */
PUSHCHAT_EXPORT int pushchat_event_fd(const pushchat_client *client);

/** Ends the client's work: logs out in order, wakes every pushchat_receive
 * waiting on it (they return NULL), drops the waiting events. Later
 * requests are refused and receives return NULL at once; the handle stays
 * valid until pushchat_client_free. Any thread; idempotent. */
PUSHCHAT_EXPORT void pushchat_client_close(pushchat_client *client);

/** Closes the client (see pushchat_client_close), waits until the receives
 * it woke have returned and releases it. No call may start on the client
 * once this has begun. NULL is ignored. */
PUSHCHAT_EXPORT void pushchat_client_free(pushchat_client *client);

#ifdef __cplusplus
}
#endif

#endif /* PUSHCHAT_PUSHCHAT_C_H */
