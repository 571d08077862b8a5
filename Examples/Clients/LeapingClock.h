#ifndef INFRA_EXAMPLES_CLIENTS_LEAPINGCLOCK_H
#define INFRA_EXAMPLES_CLIENTS_LEAPINGCLOCK_H

/// Puts the monotonic clock of this program forward, so that nobody has to wait for it.
void leapMinutes(int minutes);

#endif
