/* What the kernel's side (process.bpf.c) tells ours (ProcessEvents.cpp). Plain C for both. */
#pragma once

enum process_event_kind {
    PROCESS_FORK = 1,
    PROCESS_EXEC,
    PROCESS_EXIT,
    PROCESS_WAKE, /* it has changed an object, which wakes the reader of those changes */
};

enum {
    EXE_SIZE = 512,
    NAME_SIZE = 256,
    ARGS_SIZE = 512,
};

#define WAITING_UNKNOWN 0xffffffffU

/* Only an exec has what is behind `args_size`. */
struct process_event {
    unsigned int kind;
    unsigned int pid;
    unsigned int parent;
    unsigned int uid;
    unsigned int euid;
    unsigned int login;
    unsigned int session;
    unsigned int exe_begin;       /* of the path in `exe`; it ends at EXE_SIZE */
    unsigned int waiting;         /* changes that wait for the reader; WAITING_UNKNOWN */
    unsigned long long at;        /* CLOCK_MONOTONIC */
    unsigned long long start;     /* CLOCK_BOOTTIME */
    unsigned long long cgroup;    /* the number of the group in the unified hierarchy */
    unsigned long long args_size; /* bytes in `args` */
    char exe[EXE_SIZE + NAME_SIZE];
    char args[ARGS_SIZE];
};
