// What the node classes have in common: their place in the tree, their events
// and the parts of their description.
#pragma once

#include "dh_db.hpp"
#include "dh_member.hpp"

#include <initializer_list>
#include <memory>
#include <string>
#include <utility>

namespace dh::api {

// Makes a node for the path and puts it into the tree. Where the path is taken
// the node that is returned stays outside (dh_db::add_node).
template <class Node, class... Arguments>
std::shared_ptr<Node> create_node(dh_db& db, const std::string& path, Arguments&&... arguments) {
    auto [name, parent] = dh_db::split_path(path);
    auto node = std::make_shared<Node>(std::move(name), std::forward<Arguments>(arguments)...);
    db.add_node(parent, node);
    return node;
}

inline json::value capabilities(std::initializer_list<const char*> names, json::allocator& memory) {
    json::value object(rapidjson::kObjectType);
    for (const char* name : names)
        json::add(object, name, true, memory);
    return object;
}

// The event side of a node that publishes a value.
class value_event_node : public dh_db_event_node {
  public:
    using dh_db_event_node::dh_db_event_node;

  protected:
    // Tells all subscribers, and the history.
    template <class T>
    void send_value_changed(const T& value) {
        if (!is_attached())
            return;
        dh_event event = create_value_changed_event(get_path(0));
        event.add("value", value);
        send_event_impl(event, false);
        if (dh_db* const db = attached_db())
            db->append_to_history(shared_from_this());
    }

    // The first event after a subscribe, to that session alone.
    template <class AddValue>
    void send_initial_value(const std::shared_ptr<dh_session>& session, const AddValue& add_value) {
        dh_event event = create_value_changed_event(get_path(0));
        add_value("value", event.memory(), event.members());
        send_event_to_session_impl(event, true, session);
    }
};

}  // namespace dh::api
