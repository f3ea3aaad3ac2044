#ifndef PUSHCHAT_TESTS_PROCESSUSAGE_H
#define PUSHCHAT_TESTS_PROCESSUSAGE_H

// What a process holds, read from /proc: the fault runs, the soak and the
// scale benchmarks watch it for growth.

#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

/// Sanitizer builds: their allocators hold freed memory back, and their
/// shadow memory adds to the resident size.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitizedBuild = true;
#else
constexpr bool kSanitizedBuild = false;
#endif

struct ProcessUsage {
    long residentKiB, descriptors, threads;

    /// Resident memory of process `pid` ("self": this one), in KiB.
    static long resident(const std::string &pid = "self")
    {
        long pages = 0, resident = 0;
        std::ifstream("/proc/" + pid + "/statm") >> pages >> resident;
        return resident * sysconf(_SC_PAGESIZE) / 1024;
    }
    /// This process's peak resident memory in KiB since it started or since
    /// resetPeak().
    static long peakResident()
    {
        std::ifstream status("/proc/self/status");
        for (std::string key; status >> key;) {
            if (key == "VmHWM:") {
                long kib = 0;
                status >> kib;
                return kib;
            }
        }
        return 0;
    }
    static void resetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }
    static long entries(const char *dir) { return long(std::distance(std::filesystem::directory_iterator(dir), {})); }
    /// This process, now.
    static ProcessUsage now() { return { resident(), entries("/proc/self/fd"), entries("/proc/self/task") }; }
};

#endif // PUSHCHAT_TESTS_PROCESSUSAGE_H
