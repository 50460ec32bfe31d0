// The picture of its connections that the collector gives to the page.
#include <algorithm>

#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/vxlb_clock.h"
#include "tools/collector/collector_server.h"
#include "tools/collector/store_rows.h"

namespace vx::collector {

namespace {

// An instance answers no heartbeat: it sends its own when it hears none. That its host has acknowledged ours
// is the sign that the link stands.
void noteTakenBeat(Connection& connection) {
    if (connection.beatAt > 0 && connection.out.empty() && vx_platform_unacknowledged(connection.fd) == 0)
        connection.beatTakenAt = connection.beatAt;
}

}  // namespace

// Of those that went away, the one that was heard longest ago.
void CollectorServer::forgetOldest() {
    auto oldest = known_.end();
    for (auto at = known_.begin(); at != known_.end(); ++at)
        if (at->second.links.empty() &&
            (oldest == known_.end() || at->second.lastHeard < oldest->second.lastHeard))
            oldest = at;
    if (oldest != known_.end()) known_.erase(oldest);
}

void CollectorServer::addStatus(const Connection& connection) {
    const std::string name = connection.identity.text();
    if (known_.find(name) == known_.end()) {
        if (connection.kind == StreamKind::kDiscovery) return;  // it does not tell the whole identity
        if (known_.size() >= kMostShownInstances) forgetOldest();
        if (known_.size() >= kMostShownInstances) return;
        known_[name].key = instanceKey(name);
    }
    InstanceStatus& status = known_[name];
    status.number = connection.ids.instance;
    status.identity = connection.identity;
    status.lastHeard = std::max(status.lastHeard, connection.heardAt);
    if (connection.kind == StreamKind::kControl) {
        status.started = connection.started;
        status.rulesVersion = connection.rulesVersion;
        status.lastHeartbeat = std::max({status.lastHeartbeat, connection.heardAt, connection.beatTakenAt});
    }
    status.links.push_back({kindText(connection.kind), connection.peer, connection.since, connection.heardAt,
                            connection.received});
}

// Those that the store knows of former times are shown as gone until they connect.
void CollectorServer::rememberInstances() {
    for (const InstanceRow& row : store_->former()) {
        if (known_.size() >= kMostShownInstances) return;
        InstanceStatus status;
        status.key = row.instance;
        status.identity = {row.tier, row.server, row.app, row.agent};
        status.lastHeard = row.lastAt;
        known_.emplace(status.identity.text(), std::move(status));
    }
}

void CollectorServer::publishStatus() {
    for (auto& [name, status] : known_) {
        status.links.clear();
        status.started = false;
        status.rulesVersion = 0;
    }
    for (Connection& connection : connections_) {
        noteTakenBeat(connection);
        if (connection.kind != StreamKind::kUnknown) addStatus(connection);
    }
    const Summary& sums = runs_.summary();
    auto status = std::make_shared<CollectorStatus>();
    status->now = vxlb_now_ms();
    status->started = startedAt_;
    status->testRun = testIdx_;
    status->records = sums.records;
    status->monitorRecords = sums.monitorRecords;
    status->bytes = sums.bytes;
    status->transactions = sums.transactions;
    status->unreadable = sums.unreadable;
    status->comparedRuns = sums.judgedRuns;
    status->connections = connections_.size();
    status->refusedConnections = refused_;
    for (const auto& [name, instance] : known_) status->instances.push_back(instance);
    board_.put(std::move(status));
}

}  // namespace vx::collector
