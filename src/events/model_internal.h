// What the layers above the model need from it beyond the public interface.
#ifndef EVENTS_SRC_MODEL_INTERNAL_H
#define EVENTS_SRC_MODEL_INTERNAL_H

#include "trapspec_model.h"

namespace events {

// Fills default_trap_record, the fallback format, unless it already is.
void fill_default_trap_record();

// Releases an alert list.  The model releases a format's alert_element
// through the hook last given here; the alert mapping code, which builds
// those lists, gives it before it hangs one.  Without a hook no list was
// ever hung, and there is nothing to release.
using AlertListRelease = void (*)(alert_record *list);
void set_alert_list_release(AlertListRelease release);

}  // namespace events

#endif
