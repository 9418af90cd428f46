# SPDX-License-Identifier: Apache-2.0
include(${CMAKE_CURRENT_LIST_DIR}/velmora-svcmgr-targets.cmake)
# svcmgr_sim_test, where svcmgr-sim is installed, too.
include(${CMAKE_CURRENT_LIST_DIR}/velmora-svcmgr-sim.cmake OPTIONAL)
