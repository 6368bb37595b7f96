// The CDI version a CDI file claims: the lowest that has every feature it uses, so that
// engines that know only older versions still read it.
#include "tools/vdxctl/cdi.h"

#include <gtest/gtest.h>

namespace {

using nlohmann::json;

TEST(CdiVersion, TheLowestThatHasEveryFeatureUsed) {
  const json ours = vdxctl::CdiDocument({{0, false}, {3, false}});
  EXPECT_EQ(ours["cdiVersion"], "0.3.0");
  EXPECT_EQ(vdxctl::MinimumCdiVersion(ours), "0.3.0");

  const auto with = [&ours](const std::function<void(json&)>& change) {
    json cdi = ours;
    change(cdi);
    return vdxctl::MinimumCdiVersion(cdi);
  };
  EXPECT_EQ(with([](json& s) { s["devices"][0]["containerEdits"]["mounts"][0]["type"] = "none"; }),
            "0.4.0");
  EXPECT_EQ(with([](json& s) {
              s["devices"][1]["containerEdits"]["deviceNodes"][0]["hostPath"] = "/dev/mkfd";
            }),
            "0.5.0");
  EXPECT_EQ(with([](json& s) { s["annotations"] = {{"a", "b"}}; }), "0.6.0");
  EXPECT_EQ(with([](json& s) { s["devices"][2]["annotations"] = {{"a", "b"}}; }), "0.6.0");
  EXPECT_EQ(with([](json& s) { s["kind"] = "zovdx.dev/v.dev"; }), "0.6.0");
  EXPECT_EQ(with([](json& s) { s["containerEdits"] = {{"additionalGids", {5}}}; }), "0.7.0");
  EXPECT_EQ(with([](json& s) { s["devices"][0]["containerEdits"]["intelRdt"] = json::object(); }),
            "0.7.0");
  // The highest feature decides.
  EXPECT_EQ(with([](json& s) {
              s["annotations"] = {{"a", "b"}};
              s["devices"][0]["containerEdits"]["mounts"][0]["type"] = "none";
            }),
            "0.6.0");
}

}  // namespace
