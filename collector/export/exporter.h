/* One signal that is sent to one place, on a thread of its own. Any thread may ask. */
#pragma once

#include "export/destination_settings.h"

namespace kaq {

class Exporter {
public:
	/* Breaks off what is under way. */
	virtual ~Exporter() = default;
	virtual DestinationStatus status() = 0;
};

} // namespace kaq
