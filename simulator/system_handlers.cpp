#include "system_handlers.hpp"

#include "const_value.hpp"
#include "status_value.hpp"
#include "volatile_value.hpp"

#include <utility>

namespace simulator {

handler_plan system_info_handler(card_identity identity) {
    using text = dh::api::const_value<std::string>;
    const auto publish = [identity = std::move(identity)](dh_db& db, dh::api::value_group&) {
        text::create(db, "inventory/productName", identity.product_name);
        text::create(db, "inventory/swVersion", identity.software_version);
        text::create(db, "data/locationIndex", identity.location_index);
        dh::api::status_value<bool>::create(db, "data/configStatus", true, 0);
        return nullptr;
    };
    return {"system_info", "system_info", publish};
}

handler_plan system_start_handler(std::shared_ptr<start_state> state) {
    const auto publish = [state = std::move(state)](dh_db& db, dh::api::value_group&) {
        dh::api::volatile_value<&start_state::cold>::create(db, "data/systemColdstart", state);
        return state;
    };
    return {"system_start", "system_start", publish};
}

}  // namespace simulator
