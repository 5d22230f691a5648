// The mirror of one device handler's whole tree.
#pragma once

#include "dh_proxy.hpp"
#include "node_type.hpp"
#include "recurring_complaint.hpp"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace dh::util {

class mirrored_setting;
class passed_through;

// Makes local nodes of what the device handler tells of its own, and takes them
// out of the tree when it tells that they are gone. What it knows of them
// outlives the connection: a handler that returns finds the nodes that it had,
// less those that it no longer has.
//
// Told by the client library's event thread; started and stopped by any.
class tree_mirror final : public device_handler_tree_watcher,
                          public std::enable_shared_from_this<tree_mirror> {
  public:
    // What a device handler of a card may have; one that has more is not followed further.
    static constexpr std::size_t max_nodes = 8192;
    static constexpr std::size_t max_path_length = 1024;

    // `name` is the client's, and the first part of all local paths.
    tree_mirror(std::weak_ptr<proxy> owner, std::string name);

    void start(const std::shared_ptr<device_handler_client_api>& client, std::string_view prefix);
    void stop(std::string_view prefix);

    void tree_listed(const json::value& nodes, bool is_cut) override;
    void node_added(const std::string& path, const json::value& info) override;
    void node_removed(const std::string& path) override;
    void watch_failed(const dh_client_exception&) override;

  private:
    struct mirrored_node {
        node_type type;
        bool is_of_mirror;  // made here; else it is its owner's
        // Of a setting, and of a node that is passed through.
        std::shared_ptr<mirrored_setting> setting;
        std::shared_ptr<passed_through> passed;
    };

    // All with `mutex_` held.
    void adopt(proxy&, const std::string& remote_path, const json::value& info,
               std::vector<proxy::kept_mirror>& begun);
    bool may_be_mirrored(const proxy&, const std::string& remote_path);
    mirrored_node make_node(proxy&, const std::string& remote_path, const node_type&,
                            const json::value& info) const;
    std::shared_ptr<device_handler_subscriber> make_subscriber(proxy&,
                                                               const std::string& remote_path,
                                                               const mirrored_node&) const;
    void drop(proxy&, const std::string& remote_path);
    void drop_missing(proxy&, const json::value& listed_nodes);
    void report_too_many_nodes();

    static bool may_feed(const proxy&, const std::string& local_path, const node_type&);
    std::string local_path(std::string_view remote_path) const;

    const std::weak_ptr<proxy> proxy_;
    const std::string name_;

    std::mutex mutex_;                                   // guards all below
    std::shared_ptr<device_handler_client_api> client_;  // null while the mirror is stopped
    std::string prefix_;
    std::map<std::string, mirrored_node, std::less<>> nodes_;  // by remote path

    recurring_complaint too_many_nodes_;
    recurring_complaint bad_path_;
    recurring_complaint failed_watch_;
};

}  // namespace dh::util
