#pragma once
// KernelHistory: the kernel's input history, in memory, answering history requests of all
// three kinds (lines numbered here, as xeus 2.4 numbers every input 1): the last n inputs, a range
// of lines of a session, and a glob search ("*" and
// "?", matched against the whole input) with its n and unique options. Entries carry their
// session and line as numbers and, when output is asked for, the pair (input, output).
//
// Threads: xeus stores inputs and answers requests on the shell thread; a mutex guards the
// entries anyway, as the control thread may reach it too. Throws nothing but std::bad_alloc.
#include <xeus/xhistory_manager.hpp>

#include <mutex>
#include <string>
#include <vector>

namespace quorl {
namespace kernel {

class KernelHistory : public xeus::xhistory_manager {
private:
    struct Entry {
        int session;
        int line;
        std::string input;
        std::string output;
    };

    void configure_impl() override {}
    void store_inputs_impl(int session, int line_num, std::string const& input,
                           std::string const& output) override;
    nl::json get_tail_impl(int n, bool raw, bool output) const override;
    nl::json get_range_impl(int session, int start, int stop, bool raw, bool output) const override;
    nl::json search_impl(std::string const& pattern, bool raw, bool output, int n,
                         bool unique) const override;

    static nl::json row(Entry const& e, bool output);
    static nl::json reply(nl::json rows);

    mutable std::mutex mutex_;
    std::vector<Entry> entries_; // guarded by mutex_
};

} // namespace kernel
} // namespace quorl
