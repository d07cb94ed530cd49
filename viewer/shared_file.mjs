// The page of a file that holds a request or a trace: style and script stand in it, and it lets nothing
// else run. The collector puts the data in the place of DATA; collector/query/shared_file.h names it too.
import { createHash } from 'node:crypto';

const DATA = '<!--kaq-data-->';

function hashOf(text) {
	return `'sha256-${createHash('sha256').update(text).digest('base64')}'`;
}

export function sharedFilePage(script, style) {
	if (/<\/script|<!--/i.test(script) || /<\/style/i.test(style)) {
		throw new Error('the script or the style would end its element');
	}
	const policy = `default-src 'none'; script-src ${hashOf(script)}; style-src ${hashOf(style)}; base-uri 'none'; form-action 'none'`;
	return `<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="${policy}">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="color-scheme" content="light dark">
<meta name="referrer" content="no-referrer">
<title>kaq</title>
<style>${style}</style>
</head>
<body>
<noscript>This file needs JavaScript.</noscript>
${DATA}<script>${script}</script>
</body>
</html>
`;
}
