// Values that look like options.
#include <string>
#include <vector>

#include "process/TiedValues.h"

namespace QOR {
namespace {

using Words = std::vector<std::string>;

TEST(Arguments, AWordBehindSortIsAKeyWhateverItLooksLike) {
    EXPECT_EQ(tieValues({"select", "--sort", "-time"}), (Words{"select", "--sort=-time"}));
    EXPECT_EQ(tieValues({"--sort", "-o", "-o", "csv"}), (Words{"--sort=-o", "-o", "csv"}));
    EXPECT_EQ(tieValues({"--sort=-time", "-x"}), (Words{"--sort=-time", "-x"}));
}

TEST(Arguments, FurtherKeysEndAtTheNextOption) {
    EXPECT_EQ(tieValues({"--sort", "a", "-b", "-op", "--limit", "-5"}),
              (Words{"--sort=a", "--sort=-b", "--sort=-op", "--limit", "-5"}));
    EXPECT_EQ(tieValues({"--sort", "a", "-ojson", "-f", "b"}), (Words{"--sort=a", "-ojson", "-f", "b"}));
}

TEST(Arguments, ConditionsAndClientsAreTakenAsTheyStand) {
    EXPECT_EQ(tieValues({"--where", "-1 < a", "-f", "a"}), (Words{"--where=-1 < a", "-f", "a"}));
    EXPECT_EQ(tieValues({"--where", "", "--client", "--sort"}), (Words{"--where= ", "--client=--sort"}));
}

TEST(Arguments, NothingBehindAnOptionIsLeftToTheParser) {
    EXPECT_EQ(tieValues({"select", "--sort"}), (Words{"select", "--sort"}));
}

}  // namespace
}  // namespace QOR
