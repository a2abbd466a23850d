#include "Metrics.h"

#include <prometheus/counter.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

namespace Norvd {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

struct Sampled {
  std::vector<ClientMetric::Label> labels;
  double value;
};

MetricFamily family(const char* name, const char* help, MetricType type,
                    const std::vector<Sampled>& samples) {
  MetricFamily family{name, help, type, {}};
  for (const Sampled& sample : samples) {
    ClientMetric metric;
    metric.label = sample.labels;
    (type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = sample.value;
    family.metric.push_back(metric);
  }
  return family;
}

double seconds(WallTime time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

// What is there at the moment, as the status has it.
std::vector<MetricFamily> families(const Status& status) {
  std::vector<MetricFamily> all;
  const auto gauge = [&](const char* name, const char* help, const std::vector<Sampled>& samples) {
    all.push_back(family(name, help, MetricType::Gauge, samples));
  };
  const auto counter = [&](const char* name, const char* help,
                           const std::vector<Sampled>& samples) {
    all.push_back(family(name, help, MetricType::Counter, samples));
  };
  gauge("norv_in_sync", "1 when the switch is as wanted.", {{{}, status.inSync ? 1.0 : 0.0}});
  counter("norv_restarts_total", "Starts of norvd for this switch after the first.",
          {{{}, static_cast<double>(status.restarts)}});
  gauge("norv_start_time_seconds", "When this process began.", {{{}, seconds(status.started)}});
  std::vector<Sampled> depths, maxima;
  for (const auto& [name, queue] : status.queues) {
    depths.push_back({{{"queue", name}}, static_cast<double>(queue.now)});
    maxima.push_back({{{"queue", name}}, static_cast<double>(queue.maximum)});
  }
  depths.push_back({{{"queue", "(pending)"}}, static_cast<double>(status.pending.now)});
  maxima.push_back({{{"queue", "(pending)"}}, static_cast<double>(status.pending.maximum)});
  gauge("norv_queue_depth", "Commands that wait in a queue.", depths);
  gauge("norv_queue_depth_max", "The most that have waited in a queue.", maxima);
  if (!status.picture) return all;
  std::vector<Sampled> objects;
  for (std::size_t i = 0; i < standings; ++i) {
    objects.push_back({{{"state", standingName(static_cast<Standing>(i))}},
                       static_cast<double>(status.picture->counts[i])});
  }
  gauge("norv_objects", "Objects of the wanted switch, and of the plan, by state.", objects);
  std::vector<Sampled> packets, bytes, dropped;
  for (const auto& [name, port] : status.picture->ports) {
    const auto add = [&, &name = name](const char* way, std::uint64_t packet, std::uint64_t byte,
                                       std::uint64_t drop) {
      const std::vector<ClientMetric::Label> labels{{"port", name}, {"direction", way}};
      packets.push_back({labels, static_cast<double>(packet)});
      bytes.push_back({labels, static_cast<double>(byte)});
      dropped.push_back({labels, static_cast<double>(drop)});
    };
    add("in", port.incPackets, port.incBytes, port.incDropped);
    add("out", port.outPackets, port.outBytes, port.outDropped);
  }
  counter("norv_port_packets_total", "Packets through a port.", packets);
  counter("norv_port_bytes_total", "Bytes through a port.", bytes);
  counter("norv_port_dropped_packets_total", "Packets that a port dropped.", dropped);
  std::vector<Sampled> gatePackets, gateBytes;
  for (const auto& [gate, traffic] : status.picture->live->traffic) {
    const std::vector<ClientMetric::Label> labels{{"module", gate.module},
                                                  {"gate", std::to_string(gate.number)}};
    gatePackets.push_back({labels, static_cast<double>(traffic.packets)});
    gateBytes.push_back({labels, static_cast<double>(traffic.bytes)});
  }
  counter("norv_gate_packets_total", "Packets through an output gate.", gatePackets);
  counter("norv_gate_bytes_total", "Bytes through an output gate.", gateBytes);
  return all;
}

}  // namespace

struct Metrics::Families {
  prometheus::Registry registry;
  prometheus::Family<prometheus::Counter>& commands =
      prometheus::BuildCounter()
          .Name("norv_commands_total")
          .Help("Commands that have ended, by outcome.")
          .Register(registry);
  prometheus::Histogram& times =
      prometheus::BuildHistogram()
          .Name("norv_command_seconds")
          .Help("From the beginning of a command's service to its end.")
          .Register(registry)
          .Add({}, prometheus::Histogram::BucketBoundaries{0.0001, 0.00025, 0.0005, 0.001, 0.0025,
                                                           0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5,
                                                           1, 2.5, 5, 10});
};

Metrics::Metrics() : families_(std::make_unique<Families>()) {
  // All are told from the beginning.
  for (std::size_t i = 0; i < Norv::Agent::outcomes; ++i) {
    families_->commands.Add({{"outcome", outcomeName(static_cast<Norv::Agent::Outcome>(i))}});
  }
}

Metrics::~Metrics() = default;

void Metrics::commandEnded(const Norv::Agent::CommandReport& report) {
  families_->commands.Add({{"outcome", outcomeName(report.outcome)}}).Increment();
  if (report.outcome == Norv::Agent::Outcome::dropped) return;
  families_->times.Observe(std::chrono::duration<double>(report.ended - report.started).count());
}

std::string Metrics::text(const Status& status) const {
  std::vector<MetricFamily> all = families_->registry.Collect();
  for (MetricFamily& one : families(status)) all.push_back(std::move(one));
  return prometheus::TextSerializer().Serialize(all);
}

}  // namespace Norvd
