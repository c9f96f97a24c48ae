// The environments as a source of exact requests.

#include <utility>

#include "QORPager/Operators/Pager/QORRowSource.h"

namespace QOR {

namespace {

class EnvSource final : public QORRowSource {
public:
    explicit EnvSource(const QORRowSourceOptions& options) : QORRowSource(options.order), m_envs(options.envs) {}

    std::vector<QORFoundRow> read(const QORRowPlace* behind, std::size_t most) override {
        std::vector<QORFoundRow> rows;
        auto at = behind == nullptr ? m_envs->begin() : firstBehind(*behind);
        for (; at != m_envs->end() && rows.size() < most; ++at)
            rows.push_back(rowOf(*at));
        m_next = at;
        m_last = rows.empty() ? std::string() : rows.back().place.key;
        return rows;
    }
    std::vector<QORFoundRow> find(const std::vector<std::string>& keys) override {
        std::vector<QORFoundRow> rows;
        for (const std::string& key : keys) {
            QOREID eid;
            if (!eid.fromString(key)) continue;
            if (const QORPtr<const QOREnv> env = m_envs->find(eid); env != nullptr) rows.push_back(rowOf(env));
        }
        return rows;
    }
    std::uint64_t count() override { return m_envs->size(); }
    std::uint64_t state() override {
        QORStateSum sum;
        for (const QORPtr<const QOREnv>& env : *m_envs)
            sum.add(env->getEID().toString());
        return sum.value();
    }
    std::string describe(const QORFoundRow& found) const override { return "environment " + found.place.key; }

private:
    static QORFoundRow rowOf(const QORPtr<const QOREnv>& env) {
        const std::string key = env->getEID().toString();
        return {std::make_shared<QORArg>(env), {{}, key}, 0, QORSortValue::of(key)};
    }
    /// Whoever reads on begins where the last piece ended.
    QOREnvList::const_iterator firstBehind(const QORRowPlace& place) const {
        if (!m_last.empty() && place.key == m_last) return m_next;
        QOREID eid;
        static_cast<void>(eid.fromString(place.key));
        auto at = m_envs->begin();
        while (at != m_envs->end() && !(eid < (*at)->getEID()))
            ++at;
        return at;
    }

    QORPtr<const QOREnvList> m_envs;
    QOREnvList::const_iterator m_next;
    std::string m_last;
};

}  // namespace

std::unique_ptr<QORRowSource> makeEnvSource(const QORRowSourceOptions& options) {
    return std::make_unique<EnvSource>(options);
}

}  // namespace QOR
