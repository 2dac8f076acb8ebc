#include "platform/resources/PolicerIndexRequestResourceTable.h"

#include "platform/resources/ResourceTableBody.h"

template class Asic::ResourceTable<VornPolicerLib::PolicerBinding>;
template class Asic::ResourceClient<VornPolicerLib::PolicerBinding>;

namespace VornPolicerLib {

namespace {

using File = Asic::ResourceFile<PolicerBinding>;

static_assert(sizeof(File::Record) == 64);
static_assert(std::has_unique_object_representations_v<File::Record>);

const KivShimo::TableTypeRegistration registration(File::typeName(), KivShimo::tableTypeOf<File>());

}  // namespace

Brumo::Ptr<PolicerIndexRequestResourceTable::ClientInstance>
PolicerIndexRequestResourceTable::makeClientInstance() {
    return Brumo::make<ClientInstance>(Brumo::Ptr<ResourceTable>(this));
}

}  // namespace VornPolicerLib
