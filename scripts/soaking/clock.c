/* Preloaded into a client: its wall clock is ahead by SOAK_AHEAD seconds, so that kept contents expire. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

static long ahead(void) {
    const char* text = getenv("SOAK_AHEAD");
    return text ? atol(text) : 0;
}

int clock_gettime(clockid_t clock, struct timespec* now) {
    static int (*real)(clockid_t, struct timespec*);
    if (!real) real = (int (*)(clockid_t, struct timespec*))dlsym(RTLD_NEXT, "clock_gettime");
    const int result = real(clock, now);
    if (clock == CLOCK_REALTIME && result == 0) now->tv_sec += ahead();
    return result;
}

int gettimeofday(struct timeval* restrict now, void* restrict zone) {
    (void)zone;
    struct timespec exact;
    if (clock_gettime(CLOCK_REALTIME, &exact) != 0) return -1;
    now->tv_sec = exact.tv_sec;
    now->tv_usec = exact.tv_nsec / 1000;
    return 0;
}

time_t time(time_t* result) {
    struct timespec exact;
    clock_gettime(CLOCK_REALTIME, &exact);
    if (result) *result = exact.tv_sec;
    return exact.tv_sec;
}
