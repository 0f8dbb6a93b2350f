#include <tools/kernel/kernelhistory.hpp>

#include <fnmatch.h>

#include <algorithm>
#include <set>

namespace quorl {
namespace kernel {

nl::json KernelHistory::row(Entry const& e, bool output) {
    if (output) {
        return nl::json::array({e.session, e.line, nl::json::array({e.input, e.output})});
    }
    return nl::json::array({e.session, e.line, e.input});
}

nl::json KernelHistory::reply(nl::json rows) {
    return nl::json{{"status", "ok"}, {"history", std::move(rows)}};
}

void KernelHistory::store_inputs_impl(int session, int /*line_num*/, std::string const& input,
                                      std::string const& output) {
    // xeus 2.4 gives every input line number 1: lines are numbered here, from 1, in the order
    // the inputs were stored.
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(Entry{session, static_cast<int>(entries_.size()) + 1, input, output});
}

nl::json KernelHistory::get_tail_impl(int n, bool /*raw*/, bool output) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::size_t const count =
        n < 0 ? entries_.size() : std::min(entries_.size(), static_cast<std::size_t>(n));
    nl::json rows = nl::json::array();
    for (std::size_t i = entries_.size() - count; i < entries_.size(); ++i) {
        rows.push_back(row(entries_[i], output));
    }
    return reply(std::move(rows));
}

nl::json KernelHistory::get_range_impl(int session, int start, int stop, bool /*raw*/,
                                       bool output) const {
    std::lock_guard<std::mutex> lock(mutex_);
    nl::json rows = nl::json::array();
    for (Entry const& e : entries_) {
        if (e.session == session && e.line >= start && (stop <= 0 || e.line < stop)) {
            rows.push_back(row(e, output));
        }
    }
    return reply(std::move(rows));
}

nl::json KernelHistory::search_impl(std::string const& pattern, bool /*raw*/, bool output, int n,
                                    bool unique) const {
    std::lock_guard<std::mutex> lock(mutex_);
    // Newest first, so that `unique` keeps the latest of equal inputs and `n` the last ones.
    std::vector<Entry const*> found;
    std::set<std::string> seen;
    for (auto it = entries_.rbegin(); it != entries_.rend(); ++it) {
        if (n > 0 && found.size() >= static_cast<std::size_t>(n)) {
            break;
        }
        if (::fnmatch(pattern.c_str(), it->input.c_str(), 0) != 0) {
            continue;
        }
        if (unique && !seen.insert(it->input).second) {
            continue;
        }
        found.push_back(&*it);
    }
    nl::json rows = nl::json::array();
    for (auto it = found.rbegin(); it != found.rend(); ++it) {
        rows.push_back(row(**it, output));
    }
    return reply(std::move(rows));
}

} // namespace kernel
} // namespace quorl
