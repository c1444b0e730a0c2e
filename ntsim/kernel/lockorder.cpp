// Lock-order checking. Every time a thread that holds lock A acquires lock B, the order A -> B is
// recorded, with the stack where it was first seen. Orders are kept for the life of the process and
// across threads: when a new order B -> A would close a cycle with what was seen before, the two
// orders can deadlock, and that is a bugcheck even if this run never did.
#include "lockorder.hpp"

#include <ntsim/sim/verifier.hpp>

#include "stacktrace.hpp"
#include "thread_state.hpp"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

namespace ntsim::kernel {

namespace {

constexpr size_t kOrderStackDepth = 12;

struct OrderEdge {
    std::vector<const void*> stack;  // where the order was first seen
    uint64_t thread = 0;
};

struct LockNode {
    std::string_view kind;
    std::string name;
    std::unordered_map<const void*, OrderEdge> after;  // locks taken while this one was held
    std::unordered_set<const void*> before;            // locks held when this one was taken
};

struct OrderGraph {
    std::mutex mutex;
    std::map<const void*, LockNode> nodes;  // ordered, so that a freed range can be forgotten
    std::atomic<size_t> nodeCount{0};
};

OrderGraph& Graph()
{
    static OrderGraph& graph = *new OrderGraph;
    return graph;
}

LockNode& NodeOf(OrderGraph& graph, const void* lock, std::string_view kind)
{
    auto [it, inserted] = graph.nodes.try_emplace(lock);
    if (inserted) {
        graph.nodeCount.fetch_add(1);
    }
    if (it->second.kind.empty()) {
        it->second.kind = kind;
    }
    return it->second;
}

std::string Label(const void* lock, std::string_view kind, const std::string& name)
{
    char address[32];
    snprintf(address, sizeof address, "%p", lock);
    std::string label(kind.empty() ? std::string_view("lock") : kind);
    if (!name.empty()) {
        label += " " + name + " (" + address + ")";
    } else {
        label += std::string(" ") + address;
    }
    return label;
}

std::string LabelLocked(OrderGraph& graph, const void* lock, std::string_view kind)
{
    auto it = graph.nodes.find(lock);
    if (it == graph.nodes.end()) {
        return Label(lock, kind, {});
    }
    return Label(lock, it->second.kind.empty() ? kind : it->second.kind, it->second.name);
}

// The locks from `from` to `to` along recorded orders, both included; empty when there is no path.
std::vector<const void*> FindOrderPath(OrderGraph& graph, const void* from, const void* to)
{
    std::unordered_map<const void*, const void*> parent;
    std::deque<const void*> queue{from};
    parent[from] = nullptr;
    while (!queue.empty()) {
        const void* current = queue.front();
        queue.pop_front();
        if (current == to) {
            std::vector<const void*> path;
            for (const void* step = to; step != nullptr; step = parent[step]) {
                path.push_back(step);
            }
            std::reverse(path.begin(), path.end());
            return path;
        }
        auto node = graph.nodes.find(current);
        if (node == graph.nodes.end()) {
            continue;
        }
        for (const auto& [next, edge] : node->second.after) {
            if (parent.try_emplace(next, current).second) {
                queue.push_back(next);
            }
        }
    }
    return {};
}

}  // namespace

void CheckLockOrder(const void* lock, std::string_view kind, const void* anchor)
{
    ThreadState& thread = CurrentThread();
    if (thread.held.empty() || HoldsLock(thread, lock)) {
        return;
    }
    std::vector<std::string> inversions;
    OrderGraph& graph = Graph();
    {
        std::lock_guard guard(graph.mutex);
        NodeOf(graph, lock, kind);
        std::unordered_set<const void*> seen;
        for (const HeldLock& held : thread.held) {
            if (!seen.insert(held.lock).second) {
                continue;
            }
            LockNode& before = NodeOf(graph, held.lock, held.kind);
            if (before.after.count(lock) != 0) {
                continue;
            }
            std::vector<const void*> path = FindOrderPath(graph, lock, held.lock);
            if (!path.empty()) {
                std::string detail = LabelLocked(graph, lock, kind) + " acquired while holding " +
                                     LabelLocked(graph, held.lock, held.kind) + " (thread " +
                                     std::to_string(thread.id) + "), but the opposite order was seen before:";
                for (size_t i = 0; i + 1 < path.size(); ++i) {
                    const LockNode& from = graph.nodes.at(path[i]);
                    const OrderEdge& edge = from.after.at(path[i + 1]);
                    detail += "\n  " + LabelLocked(graph, path[i + 1], {}) + " acquired while holding " +
                              LabelLocked(graph, path[i], {}) + " (thread " + std::to_string(edge.thread) +
                              ") at:\n" + FormatStack(edge.stack, "    ");
                }
                inversions.push_back(std::move(detail));
                continue;  // the inverted order is not recorded: each new inversion reports once per site
            }
            OrderEdge edge;
            edge.stack = CaptureStack(anchor, kOrderStackDepth);
            edge.thread = thread.id;
            before.after.emplace(lock, std::move(edge));
            graph.nodes.at(lock).before.insert(held.lock);
        }
    }
    for (const std::string& detail : inversions) {
        verifier::BugCheck(verifier::rules::kLockOrderInversion, detail);
    }
}

void PushHeldLock(const void* lock, std::string_view kind)
{
    CurrentThread().held.push_back(HeldLock{lock, kind});
}

bool PopHeldLock(const void* lock)
{
    std::vector<HeldLock>& held = CurrentThread().held;
    for (auto it = held.rbegin(); it != held.rend(); ++it) {
        if (it->lock == lock) {
            held.erase(std::next(it).base());
            return true;
        }
    }
    return false;
}

std::string LockLabel(const void* lock, std::string_view kind)
{
    OrderGraph& graph = Graph();
    std::lock_guard guard(graph.mutex);
    return LabelLocked(graph, lock, kind);
}

}  // namespace ntsim::kernel

namespace ntsim::verifier {

void NoteLockAcquired(const void* lock, std::string_view kind)
{
    kernel::CheckLockOrder(lock, kind, __builtin_return_address(0));
    kernel::PushHeldLock(lock, kind);
}

void NoteLockReleased(const void* lock)
{
    if (!kernel::PopHeldLock(lock)) {
        BugCheck(rules::kLockNotHeld, kernel::LockLabel(lock, {}) + " released by thread " +
                                          std::to_string(kernel::CurrentThread().id) + ", which does not hold it");
    }
}

void ForgetLocks(const void* address, size_t size)
{
    kernel::OrderGraph& graph = kernel::Graph();
    if (graph.nodeCount.load(std::memory_order_relaxed) == 0 || size == 0) {
        return;
    }
    std::lock_guard guard(graph.mutex);
    const char* begin = static_cast<const char*>(address);
    auto first = graph.nodes.lower_bound(begin);
    auto last = graph.nodes.lower_bound(begin + size);
    for (auto it = first; it != last; ++it) {
        for (const void* before : it->second.before) {
            auto node = graph.nodes.find(before);
            if (node != graph.nodes.end()) {
                node->second.after.erase(it->first);
            }
        }
        for (const auto& [after, edge] : it->second.after) {
            auto node = graph.nodes.find(after);
            if (node != graph.nodes.end()) {
                node->second.before.erase(it->first);
            }
        }
    }
    size_t erased = static_cast<size_t>(std::distance(first, last));
    graph.nodes.erase(first, last);
    graph.nodeCount.fetch_sub(erased);
}

void NameLock(const void* lock, std::string_view name)
{
    kernel::OrderGraph& graph = kernel::Graph();
    std::lock_guard guard(graph.mutex);
    kernel::NodeOf(graph, lock, {}).name = name;
}

void AssertNoLocksHeld(std::string_view routine)
{
    const kernel::ThreadState& thread = kernel::CurrentThread();
    if (thread.held.empty()) {
        return;
    }
    std::string detail = std::string(routine) + " waits for the service while thread " + std::to_string(thread.id) +
                         " holds:";
    for (const std::string& name : HeldLockNames()) {
        detail += " [" + name + "]";
    }
    BugCheck(rules::kLockHeldDuringWait, detail);
}

size_t HeldLockCount()
{
    return kernel::CurrentThread().held.size();
}

std::vector<std::string> HeldLockNames()
{
    std::vector<std::string> names;
    for (const kernel::HeldLock& held : kernel::CurrentThread().held) {
        names.push_back(kernel::LockLabel(held.lock, held.kind));
    }
    return names;
}

}  // namespace ntsim::verifier
