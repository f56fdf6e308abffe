// Shared between the files of the server module; not for other modules.
#pragma once

#include "server/dpsvr.h"

// Fills both monitors' action blocks of a set template (retry limit 1, interval 1 s).
void dpsvr_prepare_monitors(servset* set);
// Empties the monitor list (start-up).
void dpsvr_reset_monitor_list();
// Stops both probes, leaves the monitor list, disarms both monitors, indices back to 0.
void dpsvr_reset_probing(servset* set);
// Puts the set on the monitor list (at the head, once) with its active monitor due in 1 s.
void dpsvr_join_monitor_list(servset* set);

// Rebuilds the name filter's index from the list as it now stands (after a load or a purge).
void dpsvr_index_name_filter();
