/* Who may touch a process's entry, and when: two NORMAL processes with PROC_RESTART, one of them with a script
 * before its start and a ring of its last starts; a live update, a report, a crossed limit, a pidof, and deaths at
 * any moment. Inlines have the names of the functions that they model. Each BREAK_... that is true takes one rule away,
 * and the model must then fail: scripts/model checks both. */

#ifndef BROKEN
#define BROKEN 0
#endif
#define BREAK_REAP_LOOP (BROKEN == 1)               /* call the callback again while an exited child is left */
#define BREAK_LOCK_FROM_FORK_TO_PID (BROKEN == 2)
#define BREAK_KILL_UNDER_LOCK (BROKEN == 3)         /* the same hold as for reading the pid */
#define BREAK_UPDATE_UNDER_LOCK (BROKEN == 4)
#define BREAK_REPORT_UNDER_LOCK (BROKEN == 5)
#define BREAK_FAILURE_UNDER_LOCK (BROKEN == 6)      /* a failed exec is logged under the hold that reaped the child */

#define DEATHS 2     /* from outside; the crossed limit adds one */
#define PIDS 11      /* 0 is nobody's. None is used twice, so that a reaped one that is touched is noticed */
#define NOBODY 255
#define EACH_PID(x) x(1) x(2) x(3) x(4) x(5) x(6) x(7) x(8) x(9) x(10)

mtype:child_state = { GONE, RUNNING, ZOMBIE };
mtype:entry_state = { TERMINATED, INIT, ACTIVE };

mtype:child_state child[PIDS] = GONE;
byte owner[PIDS] = NOBODY;   /* the entry that a child was forked for; NOBODY: a script or pidof */
byte next_pid = 1;
bool sigchld;                /* pending or not: signals coalesce */
byte table_lock = NOBODY;
byte failed_exec;            /* the script's child that left a note, until a reaper has logged it */

byte entry_pid[2], spawn_count[2], deaths[2];
mtype:entry_state state[2] = TERMINATED;
byte command_head[2], command_tail[2];   /* start_cmd; they differ while it is half-written */
bool ring = true, ring_freed;            /* of entry 0 */

inline lock(which) { atomic { which == NOBODY -> which = _pid } }
inline unlock(which) { assert(which == _pid); which = NOBODY }
inline die(who) {
    atomic {
        child[who] == RUNNING -> child[who] = ZOMBIE; sigchld = true;
        if :: owner[who] != NOBODY -> deaths[owner[who]]++ :: else fi
    }
}

#define IS_ZOMBIE(n) || child[n] == ZOMBIE
#define has_exited_child (false EACH_PID(IS_ZOMBIE))
inline fork(entry) {
    atomic {
        forked = next_pid; next_pid++;
        child[forked] = RUNNING; owner[forked] = entry
    }
}

/* Its two lines are logged once. */
inline halvo_log_exec_failure(who) {
    if :: failed_exec == who -> skip; assert(failed_exec == who); failed_exec = 0 :: else fi
}

/* Cannot be executed, is reaped here unless the signal thread did so first (ECHILD), and has logged its failure
 * before its end is logged. */
inline halvo_execute_script() {
    fork(NOBODY);
    atomic { failed_exec == 0 -> failed_exec = forked }
    die(forked);
    atomic { if :: child[forked] == ZOMBIE -> child[forked] = GONE :: else fi }
    if :: !BREAK_FAILURE_UNDER_LOCK -> lock(table_lock) :: else fi;
    halvo_log_exec_failure(forked);
    if :: !BREAK_FAILURE_UNDER_LOCK -> unlock(table_lock) :: else fi;
    assert(failed_exec != forked)
}

inline halvo_spawn_process(e) {
    lock(table_lock);
    entry_pid[e] = 0;
    copied = command_head[e];
    assert(copied == command_tail[e]);
    assert(spawn_count[e] == deaths[e]);   /* the one before is dead: never two at a time */
    fork(e);
    if :: BREAK_LOCK_FROM_FORK_TO_PID -> unlock(table_lock); lock(table_lock) :: else fi;
    entry_pid[e] = forked; state[e] = INIT; spawn_count[e]++;
    if   /* halvo_insert_recur_fail_info: too many starts free the ring, or there were not too many */
    :: e == 0 && ring -> assert(!ring_freed); if :: ring_freed = true; ring = false :: true fi
    :: else
    fi;
    unlock(table_lock)
}

inline halvo_start_process(e) {
    if :: e == 0 -> halvo_execute_script() :: else fi;
    halvo_spawn_process(e)
}

#define REAP(n) :: child[n] == ZOMBIE -> child[n] = GONE; reaped = n
inline reap_normal_process() {
    lock(table_lock);
    atomic {
        reaped = 0;
        if EACH_PID(REAP) :: else fi;   /* waitpid(-1, WNOHANG): any of them, or none */
        found = (reaped == 0 -> NOBODY : (entry_pid[0] == reaped -> 0 : (entry_pid[1] == reaped -> 1 : NOBODY)))
    }
    if :: reaped != 0 -> halvo_log_exec_failure(reaped) :: else fi;
    if :: found != NOBODY -> state[found] = TERMINATED; entry_pid[found] = 0 :: else fi;
    unlock(table_lock)
}

inline halvo_sigchld_cb() {
    do :: reap_normal_process(); if :: found == NOBODY -> break :: else -> halvo_start_process(found) fi od
}

active proctype halvo_signal_thread() {
    byte reaped, found, copied, forked;
end:
    do
    :: sigchld -> sigchld = false;   /* sigwaitinfo */
        halvo_sigchld_cb();
        do :: has_exited_child && !BREAK_REAP_LOOP -> halvo_sigchld_cb() :: else -> break od
    od
}

active proctype main_thread() {
    byte copied, forked, victim;
    halvo_start_process(0);
    halvo_start_process(1);
    halvo_execute_script();   /* halvo_monitor_process_crash: pidof */
    lock(table_lock); if :: state[0] == INIT -> state[0] = ACTIVE :: else fi; unlock(table_lock);   /* promote_entry */
    lock(table_lock);   /* check_process */
    victim = (state[0] == ACTIVE -> entry_pid[0] : 0);
    if :: BREAK_KILL_UNDER_LOCK -> unlock(table_lock); lock(table_lock) :: else fi;
    assert(victim == 0 || child[victim] != GONE);
    atomic { if :: child[victim] == RUNNING -> die(victim) :: else fi }   /* kill */
    unlock(table_lock)
}

active proctype halvo_ctrl_handler_thread() {
    if :: !BREAK_UPDATE_UNDER_LOCK -> lock(table_lock) :: else fi;
    command_head[0] = 1; command_tail[0] = 1;   /* take_over_entry */
    if :: !BREAK_UPDATE_UNDER_LOCK -> unlock(table_lock) :: else fi;
    if :: !BREAK_REPORT_UNDER_LOCK -> lock(table_lock) :: else fi;
    if :: ring -> skip; assert(!ring_freed) :: else fi;   /* halvo_display_recur_fail_info */
    if :: !BREAK_REPORT_UNDER_LOCK -> unlock(table_lock) :: else fi
}

#define KILL(n) :: child[n] == RUNNING && owner[n] != NOBODY -> die(n)
active proctype environment() {
    byte left = DEATHS;
    do :: left > 0 -> left--; atomic { if EACH_PID(KILL) :: true fi } :: else -> break od
}

/* Once nothing moves, everything must be in its place. */
active proctype quiet() {
    timeout -> assert(table_lock == NOBODY && failed_exec == 0 && !sigchld && !has_exited_child);
    assert(child[entry_pid[0]] == RUNNING && spawn_count[0] == 1 + deaths[0]);
    assert(child[entry_pid[1]] == RUNNING && spawn_count[1] == 1 + deaths[1])
}
