#ifndef VELM_LOCATION_POLICY_H
#define VELM_LOCATION_POLICY_H

/*
 * The location-policy IPC of velmd: what a local client says and hears on the daemon's Unix socket
 * (SOCK_SEQPACKET, path "location.policy.ipc.sock" of the configuration). C and C++.
 *
 * A client sends requests; the daemon answers a request at once with busy or "no paired devices",
 * or not at all, and sends every connected client a report whenever a paired phone has delivered a
 * location. A client that reads gets every report. One that does not read holds them up for all, so
 * it loses its connection after 15 s: read all the time, or close. At most 32 clients stay connected.
 * When one more comes, the user with most connections loses that of its quietest client.
 *
 * Every frame is a packet of its own: a header, then header.len bytes of payload. All numbers
 * are in the byte order of the machine, except where a comment says otherwise.
 */

#include <stddef.h>
#include <stdint.h>

#define VELM_LOCATION_POLICY_DEFAULT_SOCKET "/var/afc/zelka_daemon"

/* Frame types. */
#define VELM_LOCATION_REQUEST 0x1000u /* a request, and the answer to it */
#define VELM_LOCATION_REPORT 0xA000u  /* a report, which answers nobody in particular */

/* Status codes of a frame. */
#define VELM_STATUS_OK 0u
#define VELM_STATUS_BUSY 1u              /* the daemon does not take the request now */
#define VELM_STATUS_NO_PAIRED_DEVICES 3u /* there is no phone to ask */

#define VELM_LOCATION_HEIGHT_KIND 2u

/* offset width field */
struct velm_frame_header {
    uint16_t type;   /*  0  2  VELM_LOCATION_REQUEST or VELM_LOCATION_REPORT */
    uint16_t len;    /*  2  2  payload bytes that follow the header */
    uint32_t id;     /*  4  4  chosen by the client and echoed; in a report its running number */
    uint32_t time;   /*  8  4  seconds since the epoch when the frame was built */
    uint32_t status; /* 12  4  VELM_STATUS_... */
};

struct velm_location_request {
    uint16_t timeout;      /*   0   2  seconds within which a location is of use */
    uint8_t reserved[138]; /*   2 138  not read; send zeros */
};

struct velm_location_report {
    uint32_t valid;        /*   0   4  1: a location; 0: none, in "no paired devices" */
    uint8_t phone_ip[4];   /*   4   4  the phone's IPv4 address, network byte order */
    char os_version[64];   /*   8  64  terminated */
    char phone_model[64];  /*  72  64  terminated */
    uint32_t time;         /* 136   4  when the location was taken, seconds since the epoch */
    uint8_t bssid_present; /* 140   1 */
    uint8_t bssid[6];      /* 141   6  of the access point's radio that the phone is on */
    uint8_t padding1;      /* 147   1 */
    int16_t rssi;          /* 148   2  dBm */
    uint8_t padding2[2];   /* 150   2 */
    uint8_t reserved[8];   /* 152   8  zero */
    double latitude;       /* 160   8  degrees */
    double longitude;      /* 168   8  degrees */
    double horizontal_uncertainty1; /* 176   8  metres, first axis */
    double horizontal_uncertainty2; /* 184   8  metres, second axis: the same value */
    double orientation;             /* 192   8  of the first axis: 0 */
    double height;                  /* 200   8  metres */
    uint32_t height_kind;           /* 208   4  VELM_LOCATION_HEIGHT_KIND */
    uint8_t padding3[4];            /* 212   4 */
    double vertical_uncertainty;    /* 216   8  metres */
};

#ifdef __cplusplus
#define VELM_STATIC_ASSERT(condition) static_assert(condition, #condition)
#else
#define VELM_STATIC_ASSERT(condition) _Static_assert(condition, #condition)
#endif

VELM_STATIC_ASSERT(sizeof(struct velm_frame_header) == 16);
VELM_STATIC_ASSERT(offsetof(struct velm_frame_header, len) == 2);
VELM_STATIC_ASSERT(offsetof(struct velm_frame_header, id) == 4);
VELM_STATIC_ASSERT(offsetof(struct velm_frame_header, time) == 8);
VELM_STATIC_ASSERT(offsetof(struct velm_frame_header, status) == 12);
VELM_STATIC_ASSERT(sizeof(struct velm_location_request) == 140);
VELM_STATIC_ASSERT(sizeof(struct velm_location_report) == 224);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, phone_ip) == 4);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, os_version) == 8);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, phone_model) == 72);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, time) == 136);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, bssid_present) == 140);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, bssid) == 141);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, rssi) == 148);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, reserved) == 152);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, latitude) == 160);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, longitude) == 168);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, horizontal_uncertainty1) == 176);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, horizontal_uncertainty2) == 184);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, orientation) == 192);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, height) == 200);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, height_kind) == 208);
VELM_STATIC_ASSERT(offsetof(struct velm_location_report, vertical_uncertainty) == 216);

#undef VELM_STATIC_ASSERT

#endif
