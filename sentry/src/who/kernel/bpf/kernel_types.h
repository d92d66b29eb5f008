/* The members of the kernel's structures that process.bpf.c reads. The loader finds their offsets
 * in the running kernel's own description (BTF), so that one object runs on all kernels, and a
 * build does not depend on the kernel of its machine. */
#pragma once

typedef unsigned int u32;
typedef unsigned long long u64;

#pragma clang attribute push(__attribute__((preserve_access_index)), apply_to = record)

typedef struct {
    int counter;
} atomic_t;

typedef struct {
    u32 val;
} kuid_t;

struct cred {
    kuid_t uid;
    kuid_t euid;
};

struct qstr {
    union {
        struct {
            u32 hash;
            u32 len;
        };
        u64 hash_len;
    };
    const unsigned char* name;
};

struct dentry {
    struct dentry* d_parent;
    struct qstr d_name;
};

struct vfsmount {
    struct dentry* mnt_root;
};

struct mount {
    struct mount* mnt_parent;
    struct dentry* mnt_mountpoint;
    struct vfsmount mnt;
};

struct path {
    struct vfsmount* mnt;
    struct dentry* dentry;
};

struct file {
    struct path f_path;
    void* private_data;
};

struct fdtable {
    struct file** fd;
};

struct files_struct {
    struct fdtable* fdt;
};

struct fsnotify_group {
    u32 q_len;
};

struct mm_struct {
    struct file* exe_file;
    unsigned long arg_start;
    unsigned long arg_end;
};

struct signal_struct {
    atomic_t live;
};

struct task_struct {
    int pid;
    int tgid;
    u64 start_boottime;
    struct task_struct* real_parent;
    struct task_struct* group_leader;
    struct mm_struct* mm;
    const struct cred* cred;
    struct signal_struct* signal;
    struct files_struct* files;
    kuid_t loginuid;
    u32 sessionid;
};

#pragma clang attribute pop
