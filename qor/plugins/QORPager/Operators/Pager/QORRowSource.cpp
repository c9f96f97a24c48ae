#include "QORPager/Operators/Pager/QORRowSource.h"

#include "QORCommon/QORTime.h"

namespace QOR {

QORRowSource::~QORRowSource() = default;

QORRowPlace QORRowSource::beginOf(std::int64_t second) const {
    return {time2dbstr(m_order.newestFirst ? second + 1 : second - 1), {}};
}

QORPtr<const QOREnv> envOf(const QOREnvList& envs, const QOREID& eid) {
    QORPtr<const QOREnv> env = envs.find(eid);
    return env == nullptr ? makeQORPtr<const QOREnv>(eid) : env;
}

QORStateSum& QORStateSum::add(std::string_view text) noexcept {
    constexpr std::uint64_t prime = 1099511628211U;
    for (const char ch : text)
        m_value = (m_value ^ static_cast<unsigned char>(ch)) * prime;
    m_value = (m_value ^ 0xffU) * prime;  // where one text ends and the next begins
    return *this;
}

QORStateSum& QORStateSum::add(std::uint64_t number) noexcept {
    return add(std::string_view(reinterpret_cast<const char*>(&number), sizeof number));
}

}  // namespace QOR
