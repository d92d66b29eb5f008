/* Tells of processes that begin, run a new program, and end, and which process wakes the reader of
 * changes: at that moment, it has just changed an object. Runs in the kernel, in the context of
 * that process. */
#define __VMLINUX_H__ /* the types of kernel_types.h stand for it */
/* The order counts. */
/* clang-format off */
#include <linux/bpf.h>
#include "kernel_types.h"
#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>
#include "process_event.h"
/* clang-format on */

enum {
    RING_SIZE = 2 * 1024 * 1024,
    MOST_LEVELS = 32,
    UNSET = 0xffffffff,
};

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, RING_SIZE);
} ring SEC(".maps");

const volatile unsigned int reader = 0; /* the thread that waits for changes */
const volatile int changes = -1;        /* its descriptor of the group that tells of changes */
unsigned long long group = 0;           /* that group in the kernel; 0 until the first change */
unsigned long long lost = 0;            /* events for which the ring had no space */

/* The reader looks often enough unless very much happens. */
static __always_inline u64 wakeup(void) {
    return bpf_ringbuf_query(&ring, BPF_RB_AVAIL_DATA) > RING_SIZE / 2 ? BPF_RB_FORCE_WAKEUP
                                                                       : BPF_RB_NO_WAKEUP;
}

static __always_inline void fill(struct process_event* event, u32 kind, struct task_struct* task) {
    struct task_struct* leader = BPF_CORE_READ(task, group_leader);
    event->kind = kind;
    event->pid = BPF_CORE_READ(task, tgid);
    event->parent = BPF_CORE_READ(leader, real_parent, tgid);
    event->uid = BPF_CORE_READ(task, cred, uid.val);
    event->euid = BPF_CORE_READ(task, cred, euid.val);
    event->login = UNSET;
    event->session = UNSET;
    if (bpf_core_field_exists(task->loginuid)) event->login = BPF_CORE_READ(task, loginuid.val);
    if (bpf_core_field_exists(task->sessionid)) event->session = BPF_CORE_READ(task, sessionid);
    event->exe_begin = EXE_SIZE;
    event->waiting = WAITING_UNKNOWN;
    event->at = bpf_ktime_get_ns();
    event->start = BPF_CORE_READ(leader, start_boottime);
    event->cgroup = 0;
    event->args_size = 0;
}

static __always_inline void tell(u32 kind, struct task_struct* task, u32 parent) {
    struct process_event* event =
        bpf_ringbuf_reserve(&ring, __builtin_offsetof(struct process_event, exe), 0);
    if (!event) {
        __sync_fetch_and_add(&lost, 1);
        return;
    }
    fill(event, kind, task);
    if (parent) event->parent = parent;
    bpf_ringbuf_submit(event, wakeup());
}

/* Writes the path from its end: a path that is too long loses its beginning. The position stays in
 * memory: of a variable the verifier would follow every possible value. */
static __always_inline void read_exe(struct process_event* event, struct mm_struct* mm) {
    struct dentry* dentry = BPF_CORE_READ(mm, exe_file, f_path.dentry);
    struct vfsmount* vfs = BPF_CORE_READ(mm, exe_file, f_path.mnt);
    volatile u32* begin_at = &event->exe_begin;
    for (int level = 0; level < MOST_LEVELS; ++level) {
        struct dentry* parent = BPF_CORE_READ(dentry, d_parent);
        if (dentry == BPF_CORE_READ(vfs, mnt_root)) {
            struct mount* mount = (void*)vfs - bpf_core_field_offset(struct mount, mnt);
            struct mount* above = BPF_CORE_READ(mount, mnt_parent);
            if (above == mount) break;
            dentry = BPF_CORE_READ(mount, mnt_mountpoint);
            vfs = (void*)above + bpf_core_field_offset(struct mount, mnt);
            continue;
        }
        u32 begin = *begin_at;
        u32 length = BPF_CORE_READ(dentry, d_name.len);
        if (length >= NAME_SIZE || length + 1 > begin) break;
        begin -= length + 1;
        event->exe[begin & (EXE_SIZE - 1)] = '/';
        bpf_probe_read_kernel(&event->exe[(begin & (EXE_SIZE - 1)) + 1], length & (NAME_SIZE - 1),
                              BPF_CORE_READ(dentry, d_name.name));
        *begin_at = begin;
        if (dentry == parent) break;
        dentry = parent;
    }
}

static __always_inline void read_args(struct process_event* event, struct mm_struct* mm) {
    unsigned long begin = BPF_CORE_READ(mm, arg_start);
    unsigned long size = BPF_CORE_READ(mm, arg_end) - begin;
    if (size >= ARGS_SIZE) size = ARGS_SIZE - 1;
    size &= ARGS_SIZE - 1;
    if (bpf_probe_read_user(event->args, size, (void*)begin) == 0) event->args_size = size;
}

static __always_inline void find_group(struct task_struct* task) {
    struct file** files = BPF_CORE_READ(task, files, fdt, fd);
    struct file* file = 0;
    if (bpf_probe_read_kernel(&file, sizeof(file), files + changes) != 0) return;
    group = (u64)BPF_CORE_READ(file, private_data);
}

SEC("tp_btf/sched_process_fork")
int BPF_PROG(on_fork, struct task_struct* parent, struct task_struct* child) {
    if (BPF_CORE_READ(child, pid) != BPF_CORE_READ(child, tgid)) return 0; /* a thread */
    tell(PROCESS_FORK, child, BPF_CORE_READ(parent, tgid));
    return 0;
}

SEC("tp_btf/sched_process_exec")
int BPF_PROG(on_exec, struct task_struct* task) {
    struct process_event* event = bpf_ringbuf_reserve(&ring, sizeof(*event), 0);
    if (!event) {
        __sync_fetch_and_add(&lost, 1);
        return 0;
    }
    struct mm_struct* mm = BPF_CORE_READ(task, mm);
    fill(event, PROCESS_EXEC, task);
    event->cgroup = bpf_get_current_cgroup_id();
    /* Of the changes in the queue, these were made before. */
    if (group) event->waiting = BPF_CORE_READ((struct fsnotify_group*)group, q_len);
    read_exe(event, mm);
    read_args(event, mm);
    bpf_ringbuf_submit(event, wakeup());
    return 0;
}

SEC("tp_btf/sched_process_exit")
int BPF_PROG(on_exit, struct task_struct* task) {
    if (BPF_CORE_READ(task, signal, live.counter) != 0) return 0; /* threads go on */
    tell(PROCESS_EXIT, task, 0);
    return 0;
}

SEC("tp_btf/sched_waking")
int BPF_PROG(on_waking, struct task_struct* woken) {
    if ((u32)BPF_CORE_READ(woken, pid) != reader) return 0;
    if (!group) find_group(woken);
    tell(PROCESS_WAKE, (struct task_struct*)bpf_get_current_task(), 0);
    return 0;
}

/* The kernel lends some of its helpers to licences that are compatible with its own only. */
char LICENSE[] SEC("license") = "Dual BSD/GPL";
