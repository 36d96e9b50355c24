#include "velt_function_stats.h"

#include "velt_library_options.h"

velt_function_stats_pimpl::velt_function_stats_pimpl(const char* name) : _function_name(name), stats()
{
    stats.description = _function_name.c_str();
    stats.description2 = "";
}

velt_all_function_stats& velt_all_function_stats::instance()
{
    static velt_all_function_stats registry;
    return registry;
}

bool velt_all_function_stats::register_function_stats(velt_function_stats_pimpl* stats)
{
    if (!all_stats_by_function_name.emplace(stats->_function_name, stats).second) return false;
    all_stats_by_order_called.push_back(stats);
    return true;
}

void velt_all_function_stats::print_all_function_stats(const char* prefix)
{
    for (velt_function_stats_pimpl* stats : all_stats_by_order_called) velt_stat_show(&stats->stats, prefix);
}

velt_all_function_stats::~velt_all_function_stats()
{
    print_all_function_stats("function_stats: ");
    for (velt_function_stats_pimpl* stats : all_stats_by_order_called) delete stats;
}

velt_function_stats::velt_function_stats(const char* name) : pimpl(nullptr)
{
    if (!velt_option_function_stats.value) return;
    auto* stats = new velt_function_stats_pimpl(name);
    if (velt_all_function_stats::instance().register_function_stats(stats))
        pimpl = stats;
    else
        delete stats;
}

// The registry owns what was registered and frees it after the exit summary.
velt_function_stats::~velt_function_stats() { pimpl = nullptr; }
