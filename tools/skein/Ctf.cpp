#include <babeltrace2/babeltrace.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>

#include <Lumo/PrivateFile.h>

#include "CtfWriter.h"
#include "Export.h"

// The trace library runs a graph of components: ours, which hands out the recording, and its own
// writer of the format. The functions below are its view of ours.
namespace {

bt_component_class_initialize_method_status initialize(bt_self_component_source* self,
                                                       bt_self_component_source_configuration*,
                                                       const bt_value*, void* writer) {
  bt_self_component* component = bt_self_component_source_as_self_component(self);
  bt_self_component_set_data(component, writer);
  try {
    static_cast<CtfWriter*>(writer)->describe(component);
  } catch (const std::exception&) {
    return BT_COMPONENT_CLASS_INITIALIZE_METHOD_STATUS_ERROR;
  }
  const bool added = bt_self_component_source_add_output_port(self, "out", nullptr, nullptr) ==
                     BT_SELF_COMPONENT_ADD_PORT_STATUS_OK;
  return added ? BT_COMPONENT_CLASS_INITIALIZE_METHOD_STATUS_OK
               : BT_COMPONENT_CLASS_INITIALIZE_METHOD_STATUS_ERROR;
}

bt_message_iterator_class_next_method_status next(bt_self_message_iterator* iterator,
                                                  bt_message_array_const messages,
                                                  uint64_t capacity, uint64_t* count) {
  bt_self_component* component = bt_self_message_iterator_borrow_component(iterator);
  auto* writer = static_cast<CtfWriter*>(bt_self_component_get_data(component));
  *count = 0;
  try {
    while (*count < capacity) {
      const bt_message* message = writer->next(iterator);
      if (!message) break;
      messages[(*count)++] = message;
    }
  } catch (const std::exception&) {
    for (uint64_t i = 0; i < *count; ++i) bt_message_put_ref(messages[i]);
    return BT_MESSAGE_ITERATOR_CLASS_NEXT_METHOD_STATUS_ERROR;
  }
  return *count == 0 ? BT_MESSAGE_ITERATOR_CLASS_NEXT_METHOD_STATUS_END
                     : BT_MESSAGE_ITERATOR_CLASS_NEXT_METHOD_STATUS_OK;
}

const bt_component_source* addSource(bt_graph* graph, CtfWriter& writer) {
  bt_message_iterator_class* iterators = bt_message_iterator_class_create(next);
  checkStep(iterators != nullptr, "make an iterator");
  bt_component_class_source* sources = bt_component_class_source_create("skein", iterators);
  bt_message_iterator_class_put_ref(iterators);
  checkStep(sources != nullptr, "make a source");
  bt_component_class_source_set_initialize_method(sources, initialize);
  const bt_component_source* source = nullptr;
  const auto status = bt_graph_add_source_component_with_initialize_method_data(
      graph, sources, "skein", nullptr, &writer, BT_LOGGING_LEVEL_NONE, &source);
  bt_component_class_source_put_ref(sources);
  checkStep(status == BT_GRAPH_ADD_COMPONENT_STATUS_OK, "take the recording");
  return source;
}

const bt_component_sink* addSink(bt_graph* graph, const std::string& folder) {
  const bt_plugin* plugin = nullptr;
  bt_plugin_find("ctf", BT_TRUE, BT_TRUE, BT_TRUE, BT_TRUE, BT_FALSE, &plugin);
  checkStep(plugin != nullptr, "find its ctf plugin: install libbabeltrace2-0");
  const bt_component_class_sink* sinks =
      bt_plugin_borrow_sink_component_class_by_name_const(plugin, "fs");
  bt_value* parameters = bt_value_map_create();
  const bt_component_sink* sink = nullptr;
  bool good = sinks && parameters;
  if (good) {
    bt_value_map_insert_string_entry(parameters, "path", folder.c_str());
    bt_value_map_insert_bool_entry(parameters, "assume-single-trace", BT_TRUE);
    bt_value_map_insert_bool_entry(parameters, "quiet", BT_TRUE);
    good = bt_graph_add_sink_component(graph, sinks, "ctf", parameters, BT_LOGGING_LEVEL_NONE,
                                       &sink) == BT_GRAPH_ADD_COMPONENT_STATUS_OK;
  }
  bt_value_put_ref(parameters);
  bt_plugin_put_ref(plugin);
  checkStep(good, "open the folder for writing");
  return sink;
}

void write(const Recording& recording, const std::string& folder) {
  CtfWriter writer(recording);
  bt_graph* graph = bt_graph_create(0);
  checkStep(graph != nullptr, "make a graph");
  struct PutGraph {
    bt_graph* graph;
    ~PutGraph() {
      bt_graph_put_ref(graph);
      bt_current_thread_clear_error();
    }
  } putGraph{graph};
  const bt_component_source* source = addSource(graph, writer);
  const bt_component_sink* sink = addSink(graph, folder);
  checkStep(bt_graph_connect_ports(
                graph, bt_component_source_borrow_output_port_by_name_const(source, "out"),
                bt_component_sink_borrow_input_port_by_name_const(sink, "in"),
                nullptr) == BT_GRAPH_CONNECT_PORTS_STATUS_OK,
            "connect the recording to its writer");
  checkStep(bt_graph_run(graph) == BT_GRAPH_RUN_STATUS_OK,
            "write the trace: check the free space and that the folder may be written");
}

}  // namespace

int exportCtf(const Recording& recording, const std::string& folder) {
  try {
    Lumo::trustedFolder(folder);
  } catch (const Lumo::PathError& refusal) {
    std::fprintf(stderr, "skein: cannot write %s: %s\n", folder.c_str(), refusal.what());
    return 1;
  }
  std::error_code error;
  const bool there = std::filesystem::exists(folder, error);
  if (there && !std::filesystem::is_empty(folder, error)) {
    std::fprintf(stderr, "skein: %s is not an empty folder: name a new one\n", folder.c_str());
    return 1;
  }
  if (recording.records().empty()) {
    std::fprintf(stderr, "skein: there are no records to export\n");
    return 1;
  }
  // Records hold arguments, and the trace library makes its files as everybody may read them.
  const mode_t usual = ::umask(077);
  int status = 0;
  try {
    write(recording, folder);
  } catch (const CtfError& failure) {
    std::fprintf(stderr, "skein: %s\n", failure.what());
    status = 1;
  }
  ::umask(usual);
  return status;
}
