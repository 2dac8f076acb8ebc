#include "platform/resources/CrpsIndexRequestResourceTable.h"

#include "platform/resources/ResourceTableBody.h"

template class Asic::ResourceTable<VornCountersLib::CounterBinding>;
template class Asic::ResourceClient<VornCountersLib::CounterBinding>;

namespace VornCountersLib {

namespace {

using File = Asic::ResourceFile<CounterBinding>;

static_assert(sizeof(File::Record) == 32);
static_assert(std::has_unique_object_representations_v<File::Record>);

const KivShimo::TableTypeRegistration registration(File::typeName(), KivShimo::tableTypeOf<File>());

}  // namespace

Brumo::Ptr<CrpsIndexRequestResourceTable::ClientInstance>
CrpsIndexRequestResourceTable::makeClientInstance() {
    return Brumo::make<ClientInstance>(Brumo::Ptr<ResourceTable>(this));
}

}  // namespace VornCountersLib
