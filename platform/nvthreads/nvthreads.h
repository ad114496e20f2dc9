#pragma once

#include <stdint.h>

/**
 * @brief Named thread pools, named threads and timed work items (C linkage).
 *
 * A pool is either named-thread (`nvthreads_pool_init`): its threads are created by name and
 * each runs an init routine, then the work items added to it one after another in due-time
 * order, then a cleanup routine; or auto-sized (`nvthreads_pool_init_auto`): work items added
 * without a thread name run on a worker that the pool starts on demand, between a minimum and
 * a maximum number of workers.
 *
 * A work item has a first delay and a period in milliseconds (period 0: it runs once). Its
 * optional init routine runs once before its first run, its process routine at every run and
 * its optional cleanup routine exactly once when the item is over: after its last run, when it
 * is cancelled, or when its pool shuts down before it ran (so a context it owns is always
 * released). An init that returns non-zero (or throws) means the item never runs; its cleanup
 * still does. Periodic items run at a fixed rate (first due + k * period, so slow runs do not
 * drift); a run that overran whole periods skips the missed slots instead of catching up.
 * Nothing busy-waits: an idle pool sleeps on a condition until the next due time.
 *
 * Routines run with no lock of the library held, so they may call any function here, shutdown
 * of their own or another pool included. A routine that throws counts as returning non-zero;
 * nothing it throws leaves the library.
 *
 * Every function returns 0 (NVTHREADS_OK) or one of the NVTHREADS_E_* codes.
 */

#ifdef __cplusplus
extern "C" {
#endif

/** @brief Thread init/cleanup routines and work-item routines all take the caller's context. */
typedef long (*nvthreads_routine)(void* context);

/** @brief Opaque handle of a pool thread, for the stop query. */
typedef struct nvthreads_threadctx nvthreads_threadctx;

#define NVTHREADS_OK 0u
#define NVTHREADS_E_NOT_INITIALIZED 0x80001001u /* nvthreads_init was not called */
#define NVTHREADS_E_INVALID_ARG 0x80001002u     /* null name or routine, bad sizes */
#define NVTHREADS_E_EXISTS 0x80001003u          /* a pool or thread of that name exists */
#define NVTHREADS_E_NO_POOL 0x80001004u         /* no pool of that name */
#define NVTHREADS_E_NO_THREAD 0x80001005u       /* no thread of that name in the pool */
#define NVTHREADS_E_NOT_FOUND 0x80001006u       /* no pending work item of that name */
#define NVTHREADS_E_STOPPING 0x80001007u        /* the pool is shutting down or shut down */
#define NVTHREADS_E_TIMEOUT 0x80001008u         /* shutdown budget ran out; threads detached */
#define NVTHREADS_E_RESOURCES 0x80001009u       /* a thread or memory could not be had */

/** @brief Initialises the library; calls are counted, each needs one nvthreads_cleanup. */
uint32_t nvthreads_init(void);
/** @brief Undoes one nvthreads_init; the last one shuts down and frees every pool left. */
uint32_t nvthreads_cleanup(void);

/** @brief Creates an empty named-thread pool. */
uint32_t nvthreads_pool_init(const char* pool);

/**
 * @brief Creates an auto-sized pool of `minThreads` to `maxThreads` workers.
 *
 * `threadInit` and `threadCleanup` (optional) run on each worker as it starts and ends, with
 * `context`. `defaultProcess` (optional) is the process routine of items added with none.
 * Workers are started on demand (none up front); those beyond `minThreads` end after a
 * minute without work.
 */
uint32_t nvthreads_pool_init_auto(const char* pool, uint32_t minThreads, uint32_t maxThreads,
                                  nvthreads_routine threadInit, nvthreads_routine threadCleanup,
                                  nvthreads_routine defaultProcess, void* context);

/** @brief How long nvthreads_pool_shutdown waits for running routines (default 30000 ms). */
uint32_t nvthreads_pool_set_shutdownmsecs(const char* pool, uint32_t msecs);

/**
 * @brief Stops the pool: no new items, pending items are dropped (their cleanup runs), every
 * thread is told to stop (nvthreads_thread_query_stop), finishes the routine it is running,
 * runs its thread cleanup routine and ends. A named thread runs the cleanups of its own
 * dropped items, before its thread cleanup; those of items waiting for a worker run on the
 * caller. Waits at most the shutdown budget; threads still busy then are left to end on their
 * own (NVTHREADS_E_TIMEOUT). Safe to call from a thread of another pool, and repeatedly.
 * Called from a thread of the pool itself it does not wait for that thread.
 */
uint32_t nvthreads_pool_shutdown(const char* pool);

/** @brief Shuts the pool down if needed and forgets its name. */
uint32_t nvthreads_pool_cleanup(const char* pool);

/**
 * @brief Creates a named thread in a pool. `init(context)` runs on it first, then its work
 * items; `cleanup(context)` runs on it when the pool shuts down. Both are optional; the
 * result of `init` is not acted on (the thread runs its items either way). `flags` is
 * reserved (0).
 */
uint32_t nvthreads_thread_create(const char* pool, const char* thread, nvthreads_routine init,
                                 nvthreads_routine cleanup, uint32_t flags, void* context);

/**
 * @brief Non-zero once the thread has been told to stop (also for a null handle: stop). A
 * handle stays valid while its thread runs.
 */
int nvthreads_thread_query_stop(nvthreads_threadctx* thread);

/**
 * @brief Sleeps up to `msecs` on a pool thread, waking early when the thread is told to stop.
 * Returns non-zero when it woke because of the stop. Off a pool thread it just sleeps.
 */
int nvthreads_thread_sleep(nvthreads_threadctx* thread, uint32_t msecs);

/**
 * @brief Schedules a work item.
 *
 * With a thread name the item runs on that named thread; with a null thread name it runs on a
 * worker of an auto-sized pool. `item` may be null (it then cannot be cancelled by name).
 * `priority` is reserved (1). The first run comes `firstDelayMs` after the call, later runs
 * every `periodMs` (0: once). `process` null means the pool's default process routine.
 * Items of one named thread run one after another in due-time order (ties: the order they were
 * added). A null thread name on a pool without workers gives NVTHREADS_E_NO_THREAD. When the
 * call fails no routine runs and the context stays the caller's.
 */
uint32_t nvthreads_workitem_add(const char* pool, const char* thread, const char* item,
                                uint32_t priority, uint32_t firstDelayMs, uint32_t periodMs,
                                nvthreads_routine init, nvthreads_routine cleanup,
                                nvthreads_routine process, void* context);

/**
 * @brief Cancels every work item of that name on the thread (or, with a null thread, on the
 * pool's workers) that has not started its current run; a periodic item that is running now
 * is not run again. The cleanups of the cancelled items run on the caller before it returns.
 * Returns NVTHREADS_E_NOT_FOUND when there was none.
 */
uint32_t nvthreads_workitem_cancel(const char* pool, const char* thread, const char* item);

/** @brief The calling pool thread's handle, or null when called off a pool thread. */
nvthreads_threadctx* nvthreads_workitem_query_threadctx(void);

#ifdef __cplusplus
}
#endif
