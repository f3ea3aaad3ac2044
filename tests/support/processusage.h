#ifndef PUSHCHAT_TESTS_PROCESSUSAGE_H
#define PUSHCHAT_TESTS_PROCESSUSAGE_H

// What a process holds, read from /proc: the fault runs, the soak and the
// scale benchmarks watch it for growth.

#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

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
        std::string key;
        long kib = 0;
        while (status >> key && key != "VmHWM:") { }
        return status >> kib ? kib : 0;
    }
    static void resetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }
    static long entries(const char *dir) { return long(std::distance(std::filesystem::directory_iterator(dir), {})); }
    /// This process, now.
    static ProcessUsage now() { return { resident(), entries("/proc/self/fd"), entries("/proc/self/task") }; }
};

#endif // PUSHCHAT_TESTS_PROCESSUSAGE_H
