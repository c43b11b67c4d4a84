# The way back: get, update, rescan.
add_program_test(backup_get_test SOURCES get_test.cpp update_test.cpp)
add_program_test(backup_planted_test SOURCES planted_test.cpp)
add_program_test(backup_info_download_test SOURCES info_download_test.cpp progress_test.cpp)
add_program_test(backup_rescan_test SOURCES rescan_test.cpp rescan_fault_test.cpp WRAP syncfs)
