#include "export/otlp_message_private.h"

#include "util/version.h"

namespace kaq {
namespace {

/* Whose names the attributes have. */
constexpr const char *kSchema = "https://opentelemetry.io/schemas/1.33.0";
constexpr const char *kScope = "kaq";

/* Numbers of fields, as the protocol has them. */
enum class RequestTag : protozero::pbf_tag_type { kOfResource = 1 };
enum class OfResourceTag : protozero::pbf_tag_type { kResource = 1, kOfScope = 2, kSchema = 3 };
enum class ResourceTag : protozero::pbf_tag_type { kAttributes = 1 };
enum class OfScopeTag : protozero::pbf_tag_type { kScope = 1, kItems = 2, kSchema = 3 };
enum class ScopeTag : protozero::pbf_tag_type { kName = 1, kVersion = 2 };

} // namespace

std::string otlp_resource(const ResourceFacts &facts) {
	std::string bytes;
	protozero::pbf_builder<ResourceTag> resource(bytes);
	for (const OtlpResourceAttribute &each : otlp_resource_attributes()) {
		add_otlp_pair(resource, ResourceTag::kAttributes, each.key, each.value(facts));
	}
	return bytes;
}

OtlpEnvelope::OtlpEnvelope() {
	protozero::pbf_builder<OfScopeTag> to(scope_);
	protozero::pbf_builder<ScopeTag> scope(to, OfScopeTag::kScope);
	scope.add_string(ScopeTag::kName, kScope);
	scope.add_string(ScopeTag::kVersion, kVersion);
}

void OtlpEnvelope::add(const std::string &item) {
	protozero::pbf_builder<OfScopeTag>(scope_).add_message(OfScopeTag::kItems, item);
}

std::string OtlpEnvelope::around(const std::string &resource) {
	protozero::pbf_builder<OfScopeTag>(scope_).add_string(OfScopeTag::kSchema, kSchema);
	std::string of_resource;
	protozero::pbf_builder<OfResourceTag> to(of_resource);
	to.add_message(OfResourceTag::kResource, resource);
	to.add_message(OfResourceTag::kOfScope, scope_);
	to.add_string(OfResourceTag::kSchema, kSchema);
	std::string request;
	protozero::pbf_builder<RequestTag>(request).add_message(RequestTag::kOfResource, of_resource);
	return request;
}

} // namespace kaq
