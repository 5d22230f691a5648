#include "system_handlers.hpp"

#include "const_value.hpp"
#include "status_value.hpp"
#include "volatile_value.hpp"

#include <utility>

namespace simulator {

handler_plan system_info_handler(card_identity identity,
                                 std::shared_ptr<installed_software> software) {
    using text = dh::api::const_value<std::string>;
    const auto publish = [identity = std::move(identity), software = std::move(software)](
                             dh_db& db, dh::api::value_group&) {
        text::create(db, "inventory/productName", identity.product_name);
        dh::api::volatile_value<&installed_software::version>::create(db, "inventory/swVersion",
                                                                      software);
        text::create(db, "data/locationIndex", identity.location_index);
        dh::api::status_value<bool>::create(db, "data/configStatus", true, 0);
        return software;
    };
    return {"system_info", "system_info", publish, system_info_port};
}

handler_plan system_start_handler(std::shared_ptr<start_state> state) {
    const auto publish = [state = std::move(state)](dh_db& db, dh::api::value_group&) {
        dh::api::volatile_value<&start_state::cold>::create(db, "data/systemColdstart", state);
        return state;
    };
    return {"system_start", "system_start", publish};
}

}  // namespace simulator
