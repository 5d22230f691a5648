// The vocabulary of the board's calibration file.
#pragma once

#include <cstddef>

// Each value is the index of its key, which has the same name.
enum class calibration_values : unsigned {
    cal_mon_to_linetx,
    cal_osctx_to_linetx,
    cal_linerx_to_oscrx,
    cal_clientrx_to_mon,
    cal_cloop_wss_il_edfaport,
    cal_cloop_wss_il_expressport,
    cal_cloop_wss_il_eqport,
    wssIL_Edfa,
    wssIL_EQ,
    cal_mon_to_clienttx,
    cal_mon_to_boostertx,
    cal_mon_to_preamptx,
    cal_timestamp_offset_ns,
    cal_fiber_length_offset_km,
    cal_fiberdisp_offset_ps_nm,
    cal_wss_margin_dB,
    cal_lane_compensation,
    // 40 keys, one a lane, follow each other up to the last.
    cal_clientrx_loss_offset_0,
    cal_clientrx_loss_offset_39 = cal_clientrx_loss_offset_0 + 39,
};

inline constexpr std::size_t number_of_calibration_values =
    static_cast<std::size_t>(calibration_values::cal_clientrx_loss_offset_39) + 1;
