/* c-echo: answers every chat message with the same text, in C.
 *
 *   c-echo HOST PORT USER [DOMAIN]
 *
 * Logs in as USER@DOMAIN (DOMAIN defaults to HOST) through the MQTT broker
 * at HOST:PORT, prints "c-echo: online as USER@DOMAIN" once connected, and
 * sends the body of every chat message addressed to it back to its sender.
 * On SIGINT or SIGTERM it logs out in order and exits 0.
 *
 * It waits on the client's descriptor with poll(), as an event loop would,
 * and takes the event's fields as the raw JSON values they are: a string
 * value of an event is a valid string value of a request as it stands. */

#include <pushchat/pushchat_c.h>

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static volatile sig_atomic_t stopping = 0;

static void stop(int signal_number)
{
    (void)signal_number;
    stopping = 1;
}

/* Where the JSON value that starts at `p` ends (the delimiter after it),
 * or NULL when the text ends first. */
static const char *value_end(const char *p)
{
    int depth = 0;
    do {
        if (*p == '"') {
            for (++p; *p != '"'; ++p)
                if (*p == '\0' || (*p == '\\' && *++p == '\0'))
                    return NULL;
        } else if (*p == '{' || *p == '[') {
            ++depth;
        } else if (*p == '}' || *p == ']') {
            --depth;
        } else if (*p == '\0') {
            return NULL;
        }
        ++p;
    } while (depth > 0 || (*p != ',' && *p != ':' && *p != '}' && *p != ']'));
    return p;
}

/* Copies the raw value of the top-level field `key` of `event` into `out`
 * (at most `size` bytes with its NUL); 0 when absent or too long. */
static int field(const char *event, const char *key, char *out, size_t size)
{
    const char *p = event + 1; /* past '{' */
    while (*p == '"') {
        const char *key_end = value_end(p);
        if (key_end == NULL || *key_end != ':')
            return 0;
        const char *end = value_end(key_end + 1);
        if (end == NULL)
            return 0;
        size_t length = (size_t)(end - key_end - 1);
        if ((size_t)(key_end - p) == strlen(key) + 2 && strncmp(p + 1, key, strlen(key)) == 0) {
            if (length >= size)
                return 0;
            memcpy(out, key_end + 1, length);
            out[length] = '\0';
            return 1;
        }
        p = *end == ',' ? end + 1 : end;
    }
    return 0;
}

int main(int argc, char **argv)
{
    if (argc < 4 || argc > 5) {
        fprintf(stderr, "usage: c-echo HOST PORT USER [DOMAIN]\n");
        return 64;
    }
    const char *domain = argc == 5 ? argv[4] : argv[1];
    char config[1024], error[256];
    snprintf(config, sizeof config, "{\"user\":\"%s\",\"domain\":\"%s\",\"device\":\"c-echo\",\"brokers\":[\"%s:%s\"]}",
        argv[3], domain, argv[1], argv[2]);
    pushchat_client *client = pushchat_client_new(config, error, sizeof error);
    if (client == NULL) {
        fprintf(stderr, "c-echo: %s\n", error);
        return 3;
    }
    signal(SIGINT, stop);
    signal(SIGTERM, stop);
    pushchat_send(client, "{\"op\":\"login\"}");

    char self[600], from[600], to[600], type[16], readable[8];
    snprintf(self, sizeof self, "\"%s@%s\"", argv[3], domain);
    size_t request_size = 8 * 1024 * 1024;
    char *body = malloc(request_size), *request = malloc(request_size + 1024);
    struct pollfd ready = { pushchat_event_fd(client), POLLIN, 0 };
    while (!stopping && body != NULL && request != NULL) {
        if (poll(&ready, 1, -1) < 1)
            continue; /* a signal */
        const char *event;
        while ((event = pushchat_receive(client, 0)) != NULL) {
            if (strstr(event, "\"event\":\"onConnected\"") != NULL)
                printf("c-echo: online as %s@%s\n", argv[3], domain), fflush(stdout);
            /* Chat messages to us, readable, from someone else (msgType 1). */
            if (strstr(event, "\"event\":\"onMessageReceive\"") == NULL || !field(event, "from", from, sizeof from) ||
                !field(event, "to", to, sizeof to) || !field(event, "msgType", type, sizeof type) ||
                !field(event, "readable", readable, sizeof readable) || !field(event, "body", body, request_size) ||
                strcmp(type, "1") != 0 || strcmp(to, self) != 0 || strcmp(from, self) == 0 ||
                strcmp(readable, "true") != 0)
                continue;
            snprintf(request, request_size + 1024, "{\"op\":\"chat\",\"to\":%s,\"text\":%s}", from, body);
            pushchat_send(client, request);
        }
    }
    free(body);
    free(request);
    pushchat_client_free(client); /* logs out in order */
    return 0;
}
