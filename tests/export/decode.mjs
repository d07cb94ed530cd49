// Prints what the file on standard input says, as the protocol's own project reads it: the request
// of a signal ("trace", "logs" or "metrics") as JSON. The packages are below $KAQ_EXPORT_MODULES.
import {readFileSync} from "node:fs";
import {createRequire} from "node:module";
import {join} from "node:path";

const [signal] = process.argv.slice(2);
const require = createRequire(join(process.env.KAQ_EXPORT_MODULES, "package.json"));
const root = require(join(process.env.KAQ_EXPORT_MODULES,
	"node_modules/@opentelemetry/otlp-transformer/build/src/generated/root.js"));
const {v1} = root.opentelemetry.proto.collector[signal];
const message = v1[`Export${signal[0].toUpperCase()}${signal.slice(1)}ServiceRequest`];
const decoded = message.decode(readFileSync(0));
process.stdout.write(JSON.stringify(message.toObject(decoded, {longs: String, bytes: Array, enums: String})));
