<h1>Report</h1>
<p>Sold this year: <?= money(yearly_report(1250)) ?></p>
