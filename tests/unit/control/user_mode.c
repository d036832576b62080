/* A user-mode C program's view of the control interface. */
#include "control/control.h"

const char* c_control_code_name(uint32_t code)
{
    return gps_control_code_name(code);
}

size_t c_record_size(int which)
{
    static const size_t sizes[] = {sizeof(GPS_COMMAND_RECORD), sizeof(GPS_GEOFENCE_RECORD),
                                   sizeof(GPS_GEOFENCE_CMD_RECORD), sizeof(GPS_AGPS_RECORD)};
    return sizes[which];
}
