#include "engine.h"

int main(int argc, char **argv) {
	::testing::InitGoogleTest(&argc, argv);
	int status = RUN_ALL_TESTS();
	if (engine_is_running()) {
		engine_stop();
	}
	return status;
}
