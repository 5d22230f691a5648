#include "osc_handler.hpp"

#include "filtered_value.hpp"
#include "status_value.hpp"

#include <utility>

namespace simulator {
namespace {

using dh::api::hysteresis_filtered_value;
using dh::api::pushed_volatile_value_impl;
using dh::api::status_value;

using text_value = status_value<std::string>;
using figure_value = hysteresis_filtered_value<pushed_volatile_value_impl<float>>;

// The link's state in the handler's tree, for as long as this object lives.
class osc_nodes final : public display<osc_state> {
  public:
    osc_nodes(dh_db& db, std::shared_ptr<osc_link> link)
        : link_(std::move(link)),
          link_status_(text_value::create(db, "data/linkStatus", "", 0)),
          state_(text_value::create(db, "data/debug/state", "", 0)),
          length_(figure_value::create(db, "data/fiberLength")),
          dispersion_(figure_value::create(db, "data/fiberDispersion")),
          neighbour_(text_value::create(db, "data/neighbour", "", 0)) {
        link_->show_on(*this);
    }
    ~osc_nodes() override { link_->hide(); }
    osc_nodes(const osc_nodes&) = delete;
    osc_nodes& operator=(const osc_nodes&) = delete;

    // The link's status and state last: who follows them finds the rest in place.
    void show(const osc_state& now) override {
        neighbour_->set(now.neighbour);
        length_->push(now.length);
        dispersion_->push(now.dispersion);
        state_->set(now.state);
        link_status_->set(now.lit ? now.link_status : "down");
    }

  private:
    const std::shared_ptr<osc_link> link_;
    const std::shared_ptr<text_value> link_status_;
    const std::shared_ptr<text_value> state_;
    const std::shared_ptr<figure_value> length_;
    const std::shared_ptr<figure_value> dispersion_;
    const std::shared_ptr<text_value> neighbour_;
};

}  // namespace

handler_plan osc_handler(const std::string& name, std::shared_ptr<osc_link> link) {
    const auto publish = [link = std::move(link)](dh_db& db, dh::api::value_group&) {
        auto nodes = std::make_shared<osc_nodes>(db, link);
        status_value<bool>::create(db, "data/configStatus", true, 0);
        return nodes;
    };
    return {name, name, publish};
}

}  // namespace simulator
