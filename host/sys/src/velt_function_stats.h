/* Per-command timing statistics. Each exported command holds a function-local
   static velt_function_stats named after itself and a velt_function_stat_measure
   on its stack; when the option "function_stats" was on at the command's first
   call, every call is timed and a summary line per command is printed at
   process exit. With the option off the cost is one null check per call. */
#ifndef VELT_FUNCTION_STATS_H
#define VELT_FUNCTION_STATS_H

#include <map>
#include <string>
#include <vector>

#include "velt_stat.h"

struct velt_function_stats_pimpl {
    explicit velt_function_stats_pimpl(const char* name);
    velt_function_stats_pimpl(const velt_function_stats_pimpl&) = delete;
    velt_function_stats_pimpl& operator=(const velt_function_stats_pimpl&) = delete;

    std::string _function_name;
    velt_stat_t stats;
};

/* The process-wide registry, in order of first call. It takes no lock: a
   command registers inside the one-time construction of its function-local
   statistics, and statistics are switched on before commands run. It owns the registered
   statistics: its destructor prints the summary at exit and only then frees
   them, because the commands' statics are destroyed before it. */
class velt_all_function_stats {
public:
    static velt_all_function_stats& instance();
    /* False when the name is taken: the later command gets no statistics. */
    bool register_function_stats(velt_function_stats_pimpl* stats);
    void print_all_function_stats(const char* prefix);
    ~velt_all_function_stats();

    std::map<std::string, velt_function_stats_pimpl*> all_stats_by_function_name;
    std::vector<velt_function_stats_pimpl*> all_stats_by_order_called;

private:
    velt_all_function_stats() = default;
};

class velt_function_stats {
public:
    explicit velt_function_stats(const char* name);
    ~velt_function_stats();
    velt_function_stats(const velt_function_stats&) = delete;
    velt_function_stats& operator=(const velt_function_stats&) = delete;

    velt_function_stats_pimpl* pimpl;  // null when statistics are off or the name was taken
};

/* Times its scope (or until close()) on the command's statistic. */
class velt_function_stat_measure {
public:
    explicit velt_function_stat_measure(velt_function_stats* stats) : _function_stats(stats)
    {
        if (stats != nullptr && stats->pimpl != nullptr) velt_stat_mark_start(&stats->pimpl->stats);
    }
    ~velt_function_stat_measure() { close(); }
    velt_function_stat_measure(const velt_function_stat_measure&) = delete;
    velt_function_stat_measure& operator=(const velt_function_stat_measure&) = delete;

    /* Ends the measurement now; later calls and the destructor do nothing. */
    void close()
    {
        if (_function_stats != nullptr && _function_stats->pimpl != nullptr)
            velt_stat_mark_end(&_function_stats->pimpl->stats);
        _function_stats = nullptr;
    }

    velt_function_stats* _function_stats;
};

#endif /* VELT_FUNCTION_STATS_H */
