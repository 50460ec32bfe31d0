/*
 * Agent library: reports the transactions of a process to the proxy on its host.
 *
 *     vxagent_options options;
 *     vxagent_options_init(&options);
 *     options.port = 1111;
 *     options.application = "shop"; options.tier = "web"; options.server = "host1"; options.agent = "nginx";
 *     vxagent* agent = vxagent_open(&options);
 *
 *     int64_t tx = vxagent_begin(agent, &(vxagent_transaction){.url = "/cart", .method = "GET"});
 *     vxagent_enter(agent, tx, "Cart.show", 0);
 *     vxagent_enter(agent, tx, "Db.query", 0);
 *     vxagent_report_exception(agent, tx, &(vxagent_exception){.class_name = "Db.Timeout",
 *                                                              .method = "Db.query"});
 *     vxagent_leave(agent, tx, &(vxagent_method){.name = "Db.query", .backend = "orders:5432", .wall_us =
 * 9}); vxagent_leave(agent, tx, &(vxagent_method){.name = "Cart.show", .status = 200, .wall_us = 1500});
 *     vxagent_end(agent, tx, 500, 0, 0);
 *
 *     vxagent_close(agent, 1000);
 *
 * The host is never held up: records go into a bounded queue, and one thread of the library's own does all
 * that concerns sockets (a second one, over WebSocket, the framing). A full queue drops records, which are
 * counted. The proxy says when it wants records (instrumentation); until then vxagent_begin() answers 0 and
 * every call with 0 does nothing.
 *
 * The library connects again by itself, after 100 ms at first and twice as long each time up to a ceiling,
 * with some jitter: when the proxy goes away, and when it closes the data connection because no collector
 * takes data. What was on its way then is lost.
 *
 * Units     Times are microseconds since the Unix epoch, durations microseconds; 0 means now. On the wire an
 *           exception's time is in milliseconds since the Unix epoch (`exceptionTime`), so that it comes out
 *           in seconds like the start of its transaction; all other times there are microseconds.
 * Limits    A record is at most 10,000 bytes; one that is longer counts as dropped. A stack trace is cut to
 *           what its record has room for, and headers beyond that are left out.
 * Errors    vxagent_open() answers null; no other call fails. A null agent is passed over.
 * Lifetime  A process opens its agents after fork(), not before: in a child, the agents of its parent report
 *           nothing, and closing them there changes nothing for the parent (a child that has closed all
 *           descriptors by itself leaves them alone). Texts are copied.
 * Threads   Any thread may report; vxagent_close() comes last.
 */
#ifndef VXAGENT_H
#define VXAGENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vxagent vxagent;

/* How connections to the proxy are made; the proxy listens for one of them. A certificate is not checked. */
enum vxagent_transport { VXAGENT_TCP = 0, VXAGENT_WS = 1, VXAGENT_WSS = 2 };

typedef struct vxagent_options {
    const char* host; /* of the proxy; null: "127.0.0.1" */
    int port;
    /* Who reports. Each must have a text without ";" and newlines, of at most 1023 bytes. */
    const char* application;
    const char* tier;
    const char* server;
    const char* agent;
    const char* agent_type; /* "Java", "Python", "php", "Dotnet" or "go"; null: "Java" */
    int64_t pid;            /* 0: that of the process */
    size_t queue_bytes;     /* room for records not sent yet; 0: 4 MiB */
    int retry_max_ms;       /* longest pause between attempts to connect; 0: 10,000 */
    int transport;          /* enum vxagent_transport */
    /* Reports by datagrams as the function of that name, for processes too short-lived to connect; null: by
     * connections. A function has one transaction at a time, and its name belongs to one process of the
     * server at a time. What a datagram lost on its way carried is lost without a word. */
    const char* function;
} vxagent_options;

typedef struct vxagent_transaction {
    const char* url;             /* with its query, as in "/cart?id=1" */
    const char* method;          /* of the request, as in "GET"; may be null */
    const char* headers;         /* for rules on headers, as in "name=value&name=value"; may be null */
    const char* caller;          /* chain that the calling tier has sent; may be null */
    const char* session_cookie;  /* may be null */
    const char* key_word_cookie; /* may be null */
    const char* correlation;     /* may be null */
    int64_t start_us;
    int64_t thread_id; /* 0: that of the calling thread */
} vxagent_transaction;

typedef struct vxagent_method {
    const char* name;
    int status;          /* as of HTTP: 500 is an error; 0: 200 */
    const char* backend; /* what was called, as in "db:5432"; may be null */
    int64_t wall_us;
    int64_t cpu_us;
    int64_t end_us;
    int callout;              /* 1: a call to another process, whose chain carries the number below */
    int64_t callout_sequence; /* 0: one of the library's own */
} vxagent_method;

typedef struct vxagent_exception {
    const char* class_name;
    const char* message;        /* may be null */
    const char* throwing_class; /* may be null */
    const char* method;      /* that threw it, by the name it was entered with; without one it is ignored */
    const char* cause;       /* may be null */
    const char* stack_trace; /* innermost frame first, one a line; may be null */
    int number;              /* passed on as it is; 0: none */
    int64_t time_us;
    int64_t thread_id; /* 0: that of the calling thread */
} vxagent_exception;

typedef struct vxagent_header {
    const char* name; /* one without a name, or whose name holds "=", "$" or a separator, is left out */
    const char* value;
} vxagent_header;

enum vxagent_state {
    VXAGENT_OFFLINE = 0,    /* no proxy */
    VXAGENT_CONNECTED = 1,  /* registered; the proxy does not want records */
    VXAGENT_CONNECTING = 2, /* the proxy wants records; they wait for a data connection */
    VXAGENT_SENDING = 3
};

typedef struct vxagent_statistics {
    int state;        /* enum vxagent_state */
    int proc_index;   /* the process's number at the proxy; -1 before the first reply */
    uint64_t begun;   /* transactions begun */
    uint64_t refused; /* transactions not begun because the queue was full */
    uint64_t sent_records;
    uint64_t sent_bytes;
    uint64_t dropped;        /* records that were never sent */
    uint64_t reconnects;     /* connections lost, of both kinds */
    uint64_t starts;         /* start lines taken */
    uint64_t queued_records; /* not sent yet */
    size_t queued_bytes;
    size_t queue_bytes;
} vxagent_statistics;

void vxagent_options_init(vxagent_options* options);

/* Starts the I/O thread; connecting goes on in the background. Null for bad options or without memory. */
vxagent* vxagent_open(const vxagent_options* options);

/* 1 while the proxy wants records. */
int vxagent_instrumenting(const vxagent* agent);

/* A number for the transaction, 0 when it is not reported. */
int64_t vxagent_begin(vxagent* agent, const vxagent_transaction* transaction);
/* Entry into a method, named as in "Class.method". */
void vxagent_enter(vxagent* agent, int64_t transaction, const char* name, int64_t time_us);
void vxagent_leave(vxagent* agent, int64_t transaction, const vxagent_method* method);
/* Leaves a method that an exception ends, which counts as status 503. */
void vxagent_leave_by_exception(vxagent* agent, int64_t transaction, const vxagent_method* method);
/* An exception inside the transaction, caught or not; leaving the methods that it ends is reported apart. */
void vxagent_report_exception(vxagent* agent, int64_t transaction, const vxagent_exception* exception);
/* The headers of the request, as soon as they are known, and those of the response. The bytes that separate
 * headers on the wire ("&"; "|" for Python, 0x7F for go) are percent-encoded in values. */
void vxagent_request_headers(vxagent* agent, int64_t transaction, const vxagent_header* headers,
                             size_t count);
void vxagent_response_headers(vxagent* agent, int64_t transaction, int status, const vxagent_header* headers,
                              size_t count);
/* Ends the transaction; its number is not used again. */
void vxagent_end(vxagent* agent, int64_t transaction, int status, int64_t end_us, int64_t cpu_us);

/* Waits until what was reported so far has been sent. 1, or 0 when `timeout_ms` was not enough. */
int vxagent_flush(vxagent* agent, int timeout_ms);

void vxagent_get_statistics(const vxagent* agent, vxagent_statistics* out);

/* Sends what it can within `linger_ms`, ends the connections and the thread, and frees the agent. */
void vxagent_close(vxagent* agent, int linger_ms);

#ifdef __cplusplus
}
#endif

#endif
