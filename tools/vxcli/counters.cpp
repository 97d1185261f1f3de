#include "counters.h"

namespace vxcli {

std::vector<Counter> counters_of(const STATISTICS& st) {
    return {
        {"controller_error_count", "Errors the adapter reported", st.ControllerErrorCount},
        {"device_error_count", "Errors of the devices behind the port", st.DeviceErrorCount},
        {"io_count", "SCSI commands sent", st.IOCount},
        {"megabyte_count", "Megabytes transferred", st.MegabyteCount},
        {"lip_reset_count", "Loop initialisations", st.LipResetCount},
        {"link_failure_count", "Link failures", st.LinkFailureCount},
        {"loss_of_sync_count", "Losses of synchronisation", st.LossOfSyncCount},
        {"loss_of_signal_count", "Losses of signal", st.LossOfSignalCount},
        {"primitive_seq_protocol_error_count", "Primitive sequence protocol errors",
         st.PrimitiveSeqProtocolErrorCount},
        {"invalid_transmission_word_count", "Invalid transmission words", st.InvalidTransmissionWordCount},
        {"invalid_crc_count", "Frames received with a bad CRC", st.InvalidCRCCount},
    };
}

}  // namespace vxcli

namespace vxcli {

std::string metric_label(const std::string& value) {
    std::string out;
    for (const char c : value) {
        if (c == '\\' || c == '"')
            out += '\\';
        if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

}  // namespace vxcli
