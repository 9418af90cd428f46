# SPDX-License-Identifier: Apache-2.0
@0xa1c9f5bd1ffb5c37;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("peers::capnproto");

struct Model {
  id @0 :Text;
  version @1 :Text;
  title @2 :Text;
  description @3 :Text;
}

struct ModelList {
  models @0 :List(Model);
}

interface Agent {
  int32 @0 () -> (value :Int32);
  licence @1 () -> (value :Text);
  models @2 () -> (value :ModelList);
}
